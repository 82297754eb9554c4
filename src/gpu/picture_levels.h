#pragma once

#include <tarvo/export.h>

#include "device/memory.h"

namespace gpu {

/// Area averages of two pictures of three channels, for one level of the pyramid after the other: the bits of
/// `downsample` on every plane. On the CPU device it keeps a copy of both pictures with their channels side
/// by side, which every level is averaged from.
class PictureLevels {
 public:
  PictureLevels(const float* image1, const float* image2, int h, int w, int p);

  /// out1, out2: stacks of three outH x outW planes of pitch outP.
  void build(float* out1, float* out2, int outH, int outW, int outP) const;
  void release();

 private:
  const float *image1_, *image2_;
  int h_, w_, p_;
  device::Buffer interleaved_;
};

/// One level of a PictureLevels that is made for it alone. Exported because the tests hold it against
/// `downsample`.
TARVO_API void averagePictures(const float* image1, const float* image2, int h, int w, int p, float* out1,
                               float* out2, int outH, int outW, int outP);

}  // namespace gpu
