#include "device/pool.h"

#include <cstdint>
#include <iterator>
#include <vector>

#include "device/choice.h"

namespace device {
namespace {

#ifdef TARVO_POOL_PASSES_THROUGH
constexpr bool kKeepReleased = false;  // sanitizers must see every access to released memory
#else
constexpr bool kKeepReleased = true;
#endif

/// Pieces begin at multiples of this: a transaction of a CUDA device, four lines of a CPU's cache.
constexpr std::size_t kUnit = 256;

/// Where the backend wants it, large pieces start at different offsets into a page, 17 lines on from the last
/// one, so that the same pixel of several buffers does not fall onto the same cache sets.
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLine = 64;
constexpr std::size_t kLargeFrom = 16 * kPage;

std::size_t pieceBytes(std::size_t bytes) {
  return (bytes + kUnit - 1) / kUnit * kUnit + (bytes >= kLargeFrom ? kPage : 0);
}

}  // namespace

Code Pool::fromBackend(const Backend& backend, void** memory, std::size_t bytes) {
  Code code = backend.allocate(memory, bytes);
  if (code == kOutOfMemory && heldBytes_ > inUseBytes_) {
    trim();
    backend.takeLastError();
    code = backend.allocate(memory, bytes);
  }
  if (code == kSuccess) heldBytes_ += bytes;
  return code;
}

Code Pool::allocate(void** memory, std::size_t bytes) {
  if (!kKeepReleased) return allocateWhole(memory, bytes);
  const Backend& backend = chosenBackend();
  const std::size_t need = pieceBytes(bytes);
  auto piece = findFree(backend, need);
  if (piece == pieces_.end()) {
    giveBack(backend, need);
    const Code code = addSlab(backend, need);
    if (code != kSuccess) return code;
    piece = findFree(backend, need);
  }
  char* const start = piece->first;
  Piece& taken = piece->second;
  markFree(piece, false);
  if (taken.bytes > need) {
    const auto rest = pieces_.emplace(start + need, Piece{taken.slab, taken.bytes - need, false}).first;
    markFree(rest, true);
    taken.bytes = need;
  }
  char* from = start;
  if (backend.staggers && bytes >= kLargeFrom) {
    const std::size_t wanted = next_++ * 17 % (kPage / kLine) * kLine;
    from += (wanted + kPage - reinterpret_cast<std::uintptr_t>(start) % kPage) % kPage;
  }
  used_[from] = {start, &backend, bytes, true};
  inUseBytes_ += bytes;
  *memory = from;
  return kSuccess;
}

Code Pool::allocateWhole(void** memory, std::size_t bytes) {
  const Backend& backend = chosenBackend();
  auto fitting = freeWhole_.lower_bound(bytes);
  while (fitting != freeWhole_.end() && fitting->second.second != &backend) ++fitting;
  std::size_t size = bytes;
  if (fitting != freeWhole_.end() && fitting->first / 2 <= bytes) {
    *memory = fitting->second.first;
    size = fitting->first;
    freeWhole_.erase(fitting);
  } else {
    giveBack(backend, bytes);
    const Code code = fromBackend(backend, memory, bytes);
    if (code != kSuccess) return code;
  }
  used_[*memory] = {nullptr, &backend, size, true};
  inUseBytes_ += size;
  return kSuccess;
}

Code Pool::reserve(std::size_t bytes) {
  constexpr std::size_t kPieces = 64;  // about as many share it, each with its rounding
  const Backend& backend = chosenBackend();
  bytes = pieceBytes(bytes) + kPieces * (kPage + kUnit);
  if (!kKeepReleased || findFree(backend, bytes) != pieces_.end()) return kSuccess;
  giveBack(backend, SIZE_MAX);
  return addSlab(backend, bytes);
}

Code Pool::release(void* memory) {
  const auto found = used_.find(memory);
  if (found == used_.end()) return kInvalidValue;
  const Used used = found->second;
  used_.erase(found);
  inUseBytes_ -= used.bytes;
  const bool keep = kKeepReleased && used.kept && used.backend == &chosenBackend();
  if (used.piece == nullptr) {
    if (keep) {
      freeWhole_.emplace(used.bytes, std::make_pair(memory, used.backend));
      return kSuccess;
    }
    heldBytes_ -= used.bytes;
    return used.backend->release(memory);
  }
  auto piece = pieces_.find(used.piece);
  const auto join = [this](Pieces::iterator first, Pieces::iterator second) {
    free_.erase({second->second.bytes, second->first});
    first->second.bytes += second->second.bytes;
    pieces_.erase(second);
  };
  if (const auto after = std::next(piece);
      after != pieces_.end() && after->second.free && after->second.slab == piece->second.slab) {
    join(piece, after);
  }
  markFree(piece, true);
  if (piece != pieces_.begin()) {
    const auto before = std::prev(piece);
    if (before->second.free && before->second.slab == piece->second.slab) {
      markFree(before, false);
      join(before, piece);
      markFree(before, true);
      piece = before;
    }
  }
  if (!keep && piece->second.bytes == slabs_.at(piece->second.slab).bytes) removeSlab(piece);
  return kSuccess;
}

bool Pool::setKept(void* memory, bool kept) {
  const auto found = used_.find(memory);
  if (found == used_.end() || found->second.piece != nullptr) return false;
  found->second.kept = kept;
  return true;
}

void Pool::trim() {
  if (heldBytes_ > inUseBytes_) giveBack(chosenBackend(), SIZE_MAX);
}

Pool::Pieces::iterator Pool::findFree(const Backend& backend, std::size_t bytes) {
  for (auto at = free_.lower_bound({bytes, nullptr}); at != free_.end(); ++at) {
    const auto piece = pieces_.find(at->second);
    if (slabs_.at(piece->second.slab).backend == &backend) return piece;
  }
  return pieces_.end();
}

Code Pool::addSlab(const Backend& backend, std::size_t bytes) {
  void* memory = nullptr;
  const Code code = fromBackend(backend, &memory, bytes);
  if (code != kSuccess) return code;
  auto* const base = static_cast<char*>(memory);
  slabs_[base] = {&backend, bytes};
  markFree(pieces_.emplace(base, Piece{base, bytes, false}).first, true);
  return kSuccess;
}

void Pool::markFree(Pieces::iterator piece, bool free) {
  piece->second.free = free;
  const std::pair<std::size_t, char*> key{piece->second.bytes, piece->first};
  if (free) {
    free_.insert(key);
  } else {
    free_.erase(key);
  }
}

void Pool::giveBack(const Backend& backend, std::size_t bytes) {
  std::size_t given = 0;
  const auto goes = [&](const Backend* maker, std::size_t size) {
    if (maker != &backend) return true;
    if (given >= bytes) return false;
    given += size;
    return true;
  };
  std::vector<char*> slabs;
  for (auto at = free_.rbegin(); at != free_.rend(); ++at) {
    const Slab& slab = slabs_.at(pieces_.at(at->second).slab);
    if (at->first == slab.bytes && goes(slab.backend, slab.bytes)) slabs.push_back(at->second);
  }
  for (char* slab : slabs) removeSlab(pieces_.find(slab));
  for (auto at = freeWhole_.end(); at != freeWhole_.begin();) {
    --at;
    const auto [memory, maker] = at->second;
    if (!goes(maker, at->first)) continue;
    heldBytes_ -= at->first;
    maker->release(memory);
    at = freeWhole_.erase(at);
  }
}

void Pool::removeSlab(Pieces::iterator piece) {
  const auto slab = slabs_.find(piece->second.slab);
  markFree(piece, false);
  pieces_.erase(piece);
  heldBytes_ -= slab->second.bytes;
  slab->second.backend->release(slab->first);
  slabs_.erase(slab);
}

}  // namespace device
