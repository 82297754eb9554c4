#pragma once

#include <cstddef>
#include <vector>

#include "device/memory.h"

namespace variational {

/// Area averages of two pictures of three channels for the levels of a pyramid: the bits of `downsample` on
/// every plane. Small levels are made several at a time, so that the pictures are read from memory less often
/// than once a level; on the CPU device from a copy of both pictures with their channels side by side.
class PictureLevels {
 public:
  struct Size {
    int h, w, p;
  };
  /// Stacks of three planes.
  struct Pictures {
    const float *first, *second;
  };

  /// @param image1, image2 device stacks of three h x w planes of pitch p; not copied on a CUDA device
  /// @param levels         sizes, all positive, in the order in which the levels will be asked for
  PictureLevels(const float* image1, const float* image2, int h, int w, int p, std::vector<Size> levels);

  /// Floats that they take of the pool at one time.
  std::size_t floats() const;

  /// Both pictures in the size of the next level; those of the level before are no longer valid.
  Pictures next();
  void release();

 private:
  void interleave();
  /// Makes levels_[first_] ... levels_[end_ - 1].
  void build();
  void buildOnCpu();
  std::size_t interleavedFloats() const;
  /// Floats from the start of a batch that begins with level `first` to the pictures of a level.
  std::size_t offsetOf(std::size_t first, std::size_t index, int picture) const;
  std::size_t batchEnd(std::size_t first) const;

  const float *image1_, *image2_;
  int h_, w_, p_;
  std::vector<Size> levels_;
  device::Buffer interleaved_, batch_;  // allocated by the first build
  std::size_t batchFloats_ = 0;
  std::size_t next_ = 0;
  std::size_t first_ = 0, end_ = 0;  // the levels in batch_
};

/// The levels of a PictureLevels one after the other; out: for each a stack of six planes of its size.
/// The tests hold it against `downsample`.
void averagePictures(const float* image1, const float* image2, int h, int w, int p,
                     const std::vector<PictureLevels::Size>& levels, const std::vector<float*>& out);

}  // namespace variational
