#include "device/pool.h"

#include <cstdint>
#include <iterator>

#include "device/choice.h"

namespace device {
namespace {

#ifdef TARVO_POOL_PASSES_THROUGH
constexpr bool kKeepReleased = false;  // sanitizers must see every access to released memory
#else
constexpr bool kKeepReleased = true;
#endif

/// Pieces begin at multiples of this: a transaction of a CUDA device, four lines of a CPU's cache.
constexpr std::size_t kGranule = 256;

/// Where the backend wants it, large pieces start at different offsets into a page, 17 lines on from the last
/// one, so that the same pixel of several buffers does not fall onto the same cache sets.
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLine = 64;
constexpr std::size_t kLargeFrom = 16 * kPage;

std::size_t pieceBytes(std::size_t bytes) {
  return (bytes + kGranule - 1) / kGranule * kGranule + (bytes >= kLargeFrom ? kPage : 0);
}

/// From the start of a piece to the memory of the count-th large one.
std::size_t offsetOf(const char* start, std::size_t count) {
  const std::size_t wanted = count * 17 % (kPage / kLine) * kLine;
  return (wanted + kPage - reinterpret_cast<std::uintptr_t>(start) % kPage) % kPage;
}

}  // namespace

Code Pool::allocate(void** memory, std::size_t bytes) {
  if (!kKeepReleased) return allocateWhole(memory, bytes);
  const Backend& backend = chosenBackend();
  const std::size_t need = pieceBytes(bytes);
  auto found = smallestFree(backend, need);
  if (found == pieces_.end()) {
    giveBack(backend, need);
    const Code code = addSlab(backend, need, &found);
    if (code != kSuccess) return code;
  }
  char* const start = found->first;
  Piece& piece = found->second;
  if (piece.bytes > need) {
    pieces_.emplace(start + need, Piece{piece.slab, piece.bytes - need, 0, nullptr});
    piece.bytes = need;
  }
  piece.used = bytes;
  piece.memory = start + (backend.staggers && bytes >= kLargeFrom ? offsetOf(start, count_++) : 0);
  inUse_ += bytes;
  *memory = piece.memory;
  return kSuccess;
}

Code Pool::allocateWhole(void** memory, std::size_t bytes) {
  const Backend& backend = chosenBackend();
  auto best = wholes_.end();
  for (auto at = wholes_.begin(); at != wholes_.end(); ++at) {
    const Whole& whole = at->second;
    if (whole.used || whole.backend != &backend || whole.bytes < bytes || whole.bytes / 2 > bytes) continue;
    if (best == wholes_.end() || whole.bytes < best->second.bytes) best = at;
  }
  if (best == wholes_.end()) {
    giveBack(backend, bytes);
    void* fresh = nullptr;
    const Code code = fromBackend(backend, &fresh, bytes);
    if (code != kSuccess) return code;
    try {
      best = wholes_.emplace(fresh, Whole{&backend, bytes, false, true}).first;
    } catch (...) {
      backend.release(fresh);
      throw;
    }
    held_ += bytes;
  }
  best->second.used = best->second.kept = true;
  inUse_ += best->second.bytes;
  *memory = best->first;
  return kSuccess;
}

Code Pool::reserve(std::size_t bytes) {
  constexpr std::size_t kPieces = 64;  // about as many share it, each with its rounding
  const Backend& backend = chosenBackend();
  bytes = pieceBytes(bytes) + kPieces * (kPage + kGranule);
  if (!kKeepReleased || smallestFree(backend, bytes) != pieces_.end()) return kSuccess;
  giveBack(backend, SIZE_MAX);
  Pieces::iterator slab;
  return addSlab(backend, bytes, &slab);
}

Code Pool::release(void* memory) {
  if (const auto whole = wholes_.find(memory); whole != wholes_.end()) return releaseWhole(whole);
  auto piece = pieces_.upper_bound(static_cast<char*>(memory));
  if (piece == pieces_.begin()) return kInvalidValue;
  --piece;
  return piece->second.used != 0 && piece->second.memory == memory ? releasePiece(piece) : kInvalidValue;
}

Code Pool::releaseWhole(Wholes::iterator whole) {
  if (!whole->second.used) return kInvalidValue;
  inUse_ -= whole->second.bytes;
  whole->second.used = false;
  if (kKeepReleased && whole->second.kept && whole->second.backend == &chosenBackend()) return kSuccess;
  return removeWhole(whole);
}

bool Pool::joins(Pieces::iterator first, Pieces::iterator second) const {
  return first->second.used == 0 && second->second.used == 0 && first->second.slab == second->second.slab;
}

Code Pool::releasePiece(Pieces::iterator piece) {
  inUse_ -= piece->second.used;
  piece->second.used = 0;
  if (piece != pieces_.begin() && joins(std::prev(piece), piece)) --piece;
  for (auto next = std::next(piece); next != pieces_.end() && joins(piece, next);) {
    piece->second.bytes += next->second.bytes;
    next = pieces_.erase(next);
  }
  const Slab& slab = piece->second.slab->second;
  if (slab.backend != &chosenBackend() && piece->second.bytes == slab.bytes) removeSlab(piece);
  return kSuccess;
}

bool Pool::setKept(void* memory, bool kept) {
  const auto whole = wholes_.find(memory);
  if (whole == wholes_.end() || !whole->second.used) return false;
  whole->second.kept = kept;
  return true;
}

void Pool::trim() {
  if (held_ > inUse_) giveBack(chosenBackend(), SIZE_MAX);
}

Pool::Pieces::iterator Pool::smallestFree(const Backend& backend, std::size_t bytes) {
  auto best = pieces_.end();
  for (auto at = pieces_.begin(); at != pieces_.end(); ++at) {
    const Piece& piece = at->second;
    if (piece.used != 0 || piece.bytes < bytes || piece.slab->second.backend != &backend) continue;
    if (best == pieces_.end() || piece.bytes < best->second.bytes) best = at;
  }
  return best;
}

Pool::Pieces::iterator Pool::largestFreeSlab() {
  auto best = pieces_.end();
  for (auto at = pieces_.begin(); at != pieces_.end(); ++at) {
    const Piece& piece = at->second;
    if (piece.used != 0 || piece.bytes != piece.slab->second.bytes) continue;
    if (best == pieces_.end() || piece.bytes > best->second.bytes) best = at;
  }
  return best;
}

Code Pool::fromBackend(const Backend& backend, void** memory, std::size_t bytes) {
  Code code = backend.allocate(memory, bytes);
  if (code == kOutOfMemory && held_ > inUse_) {
    trim();
    backend.takeLastError();
    code = backend.allocate(memory, bytes);
  }
  return code;
}

Code Pool::addSlab(const Backend& backend, std::size_t bytes, Pieces::iterator* piece) {
  void* memory = nullptr;
  const Code code = fromBackend(backend, &memory, bytes);
  if (code != kSuccess) return code;
  auto* const base = static_cast<char*>(memory);
  auto slab = slabs_.end();
  try {
    slab = slabs_.emplace(base, Slab{&backend, bytes}).first;
    *piece = pieces_.emplace(base, Piece{slab, bytes, 0, nullptr}).first;
  } catch (...) {
    if (slab != slabs_.end()) slabs_.erase(slab);
    backend.release(memory);
    throw;
  }
  held_ += bytes;
  return kSuccess;
}

void Pool::removeSlab(Pieces::iterator piece) {
  const auto slab = piece->second.slab;
  held_ -= slab->second.bytes;
  slab->second.backend->release(slab->first);
  pieces_.erase(piece);
  slabs_.erase(slab);
}

Code Pool::removeWhole(Wholes::iterator whole) {
  held_ -= whole->second.bytes;
  const Code code = whole->second.backend->release(whole->first);
  wholes_.erase(whole);
  return code;
}

void Pool::giveBack(const Backend& backend, std::size_t bytes) {
  for (auto at = wholes_.begin(); at != wholes_.end();) {
    const auto whole = at++;
    if (!whole->second.used && (bytes == SIZE_MAX || whole->second.backend != &backend)) removeWhole(whole);
  }
  std::size_t given = 0;
  for (auto slab = largestFreeSlab(); slab != pieces_.end() && given < bytes; slab = largestFreeSlab()) {
    given += slab->second.slab->second.backend == &backend ? slab->second.bytes : 0;
    removeSlab(slab);
  }
}

}  // namespace device
