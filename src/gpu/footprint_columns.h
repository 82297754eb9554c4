#pragma once

#include <algorithm>

#include "gpu/pyramid_kernels.h"

namespace gpu {

/// Target pixels that are averaged side by side on the CPU device.
constexpr int kSide = 64;

/// Footprints of up to kSide neighbouring target columns.
struct Columns {
  int first[kSide], last[kSide], partial[kSide];
  float start[kSide], rest[kSide];
  int count;                     ///< columns in use
  int least;                     ///< samples of the narrowest footprint
  int most;                      ///< and of the widest
  int wider[kSide], widerCount;  ///< columns with more than the least

  TARVO_HOST_DEVICE void set(int x0, int outW, int inW) {
    const float scale = static_cast<float>(inW) / static_cast<float>(outW);
    count = outW - x0 < kSide ? outW - x0 : kSide;
    most = 0;
    least = inW;
    for (int k = 0; k < count; ++k) {
      const kernels::Footprint footprint(x0 + k, scale, inW);
      first[k] = footprint.first;
      last[k] = footprint.last;
      partial[k] = footprint.partial;
      start[k] = footprint.start(footprint.first);
      rest[k] = footprint.rest;
      const int samples = footprint.last - footprint.first + 1;
      if (samples > most) most = samples;
      if (samples < least) least = samples;
    }
    widerCount = 0;
    for (int k = 0; k < count; ++k) {
      if (last[k] - first[k] + 1 > least) wider[widerCount++] = k;
    }
  }

  /// Area of sample `step` of column k's footprint; rowStart and rowEnd are the lengths of its row.
  TARVO_HOST_DEVICE float area(int k, int step, float rowStart, float rowEnd) const {
    const float columnStart = step == 0 ? start[k] : 1.0f;
    const float columnEnd = first[k] + step == partial[k] ? rest[k] : 1.0f;
    return rowStart * columnStart * rowEnd * columnEnd;
  }
};

}  // namespace gpu
