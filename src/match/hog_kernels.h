#pragma once

#include <cmath>

#include "device/kernel.h"
#include "match/hog_sectors.h"

namespace kernels {

/// Gaussian of 0.8 sectors at -1, 0 and 1, normalised.
constexpr float kSectorTaps[3] = {0x1.e975d4p-3f, 0x1.0b4516p-1f, 0x1.e975d4p-3f};

/// w0 a + w1 b + w2 c, not fused.
TARVO_HOST_DEVICE float smoothSectors(float before, float at, float after) {
  constexpr float kOuter = kSectorTaps[0];
  constexpr float kInner = kSectorTaps[1];
  return kOuter * before + kInner * at + kOuter * after;
}

/// Accumulator plane of the sector of (gx, gy) += sqrt(gx^2 + gy^2); nothing for a zero gradient.
struct computeHOG_kernel {
  match::SectorBorders borders;
  const float *gx, *gy;
  float* accumulator;
  int bins, h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float dx = gx[i], dy = gy[i];
    if (dx == 0.0f && dy == 0.0f) return;
    accumulator[borders.sector(dx, dy) * h * p + i] += std::sqrt(dx * dx + dy * dy);
  }
};

/// hog_b = w0 acc_(b-1) + w1 acc_b + w2 acc_(b+1), circular. A ring of three sectors, each read once.
struct zFilter_kernel {
  const float* accumulator;
  float* hog;
  int bins, h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int n = h * p;
    const int i = y * p + x;
    const float first = accumulator[i];
    float before = accumulator[i + (bins - 1) * n];
    float at = first;
    for (int b = 0; b < bins; ++b) {
      const float after = b + 1 < bins ? accumulator[i + (b + 1) * n] : first;
      hog[i + b * n] = smoothSectors(before, at, after);
      before = at;
      at = after;
    }
  }
};

}  // namespace kernels
