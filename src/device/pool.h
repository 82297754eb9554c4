#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "device/backend.h"

namespace device {

/// Device memory that is kept between requests. It comes from the backend in slabs; a request takes a piece of
/// the smallest free stretch that holds it, and a released piece joins its free neighbours. So buffers that are
/// never alive together share their memory, whatever their sizes. Where no stretch is long enough, slabs that
/// are wholly free are given back, the largest first, until a new slab makes the pool no larger than before.
///
/// Whole buffers are as the backend made them, so that a client may hand them back to the backend. They are kept
/// apart: a request takes the smallest free one that holds it.
class Pool {
 public:
  Code allocate(void** memory, std::size_t bytes);
  Code allocateWhole(void** memory, std::size_t bytes);
  /// Makes sure that one free stretch of at least `bytes` exists.
  Code reserve(std::size_t bytes);
  Code release(void* memory);

  /// Whether a whole buffer is kept when it is released. False if `memory` is none that is in use.
  bool setKept(void* memory, bool kept);

  /// Gives back all that is free: slabs without a piece in use, and whole buffers.
  void trim();
  std::size_t bytesInUse() const { return inUseBytes_; }
  std::size_t bytesHeld() const { return heldBytes_; }

  std::mutex& mutex() { return mutex_; }  ///< held by the caller around every call

 private:
  struct Slab {
    const Backend* backend;
    std::size_t bytes;
  };
  /// A stretch of a slab, free or in use; the pieces of a slab follow one another without gaps.
  struct Piece {
    char* slab;
    std::size_t bytes;
    bool free;
  };
  using Pieces = std::map<char*, Piece>;
  struct Used {
    char* piece;  ///< null: a whole buffer
    const Backend* backend;
    std::size_t bytes;
    bool kept;
  };

  Pieces::iterator findFree(const Backend& backend, std::size_t bytes);
  Code addSlab(const Backend& backend, std::size_t bytes);
  void markFree(Pieces::iterator piece, bool free);
  /// Gives back wholly free slabs and free whole buffers: of other backends all, of this one the largest first,
  /// until `bytes` are given back.
  void giveBack(const Backend& backend, std::size_t bytes);
  void removeSlab(Pieces::iterator piece);
  Code fromBackend(const Backend& backend, void** memory, std::size_t bytes);

  std::mutex mutex_;
  std::map<char*, Slab> slabs_;
  Pieces pieces_;
  std::set<std::pair<std::size_t, char*>> free_;  // free pieces by size
  std::multimap<std::size_t, std::pair<void*, const Backend*>> freeWhole_;
  std::unordered_map<const void*, Used> used_;
  std::size_t inUseBytes_ = 0, heldBytes_ = 0;
  std::size_t next_ = 0;  // counts pieces, for their offsets
};

}  // namespace device
