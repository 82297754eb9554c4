#pragma once

#include <cstddef>
#include <map>
#include <mutex>

#include "device/backend.h"

namespace device {

/// Device memory that is kept between requests. It comes from the backend in slabs; a request takes a piece
/// of the smallest free stretch that holds it, and a released piece joins its free neighbours. So buffers
/// that are never alive together share their memory, whatever their sizes. Where no stretch is long enough,
/// slabs that are wholly free are given back, the largest first, until a new slab makes the pool no larger
/// than before.
///
/// Whole buffers are as the backend made them, so that a client may hand them back to the backend. They are
/// kept apart: a request takes the smallest free one that holds it and is not twice as large.
///
/// Requests may throw std::bad_alloc, and change nothing then; releases allocate nothing.
class Pool {
 public:
  Code allocate(void** memory, std::size_t bytes);
  Code allocateWhole(void** memory, std::size_t bytes);
  /// Makes sure that one free stretch exists which holds pieces of `bytes` in all.
  Code reserve(std::size_t bytes);
  Code release(void* memory);

  /// Whether a whole buffer is kept when it is released. False if `memory` is none that is in use.
  bool setKept(void* memory, bool kept);

  /// Gives back all that is free: slabs without a piece in use, and whole buffers.
  void trim();
  std::size_t bytesInUse() const { return inUse_; }  ///< as they were asked for
  std::size_t bytesHeld() const { return held_; }

  std::mutex& mutex() { return mutex_; }  ///< held by the caller around every call

 private:
  struct Slab {
    const Backend* backend;
    std::size_t bytes;
  };
  using Slabs = std::map<char*, Slab>;
  /// A stretch of a slab; the pieces of a slab follow one another without gaps.
  struct Piece {
    Slabs::iterator slab;
    std::size_t bytes;
    std::size_t used;  ///< bytes that were asked for; 0: free
    void* memory;      ///< handed out
  };
  using Pieces = std::map<char*, Piece>;
  struct Whole {
    const Backend* backend;
    std::size_t bytes;
    bool used, kept;
  };
  using Wholes = std::map<void*, Whole>;

  Code fromBackend(const Backend& backend, void** memory, std::size_t bytes);
  Code addSlab(const Backend& backend, std::size_t bytes, Pieces::iterator* piece);
  void removeSlab(Pieces::iterator piece);
  Code removeWhole(Wholes::iterator whole);
  Pieces::iterator smallestFree(const Backend& backend, std::size_t bytes);
  Pieces::iterator largestFreeSlab();
  bool joins(Pieces::iterator first, Pieces::iterator second) const;
  Code releasePiece(Pieces::iterator piece);
  Code releaseWhole(Wholes::iterator whole);
  /// Gives back free slabs, the largest first, until `bytes` are given back; free whole buffers of other
  /// backends; of this one as well where `bytes` is SIZE_MAX.
  void giveBack(const Backend& backend, std::size_t bytes);

  std::mutex mutex_;
  Slabs slabs_;
  Pieces pieces_;
  Wholes wholes_;
  std::size_t inUse_ = 0, held_ = 0;
  std::size_t count_ = 0;  // of large pieces, for their offsets
};

}  // namespace device
