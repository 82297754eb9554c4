#include "variational/pyramid/warp_cpu.h"

#include <tarvo/picture.h>

#include <algorithm>

#include "device/cpu/launch.h"

// Per pixel about 112 bytes (source 3 in, copy 4 out and 4 in, flow 2, fallback 3, output 3, validity 1, each
// write with its read-for-ownership) and 30 flops.

namespace variational {
namespace {

constexpr int kSide = 16;  // target pixels side by side

using Warp = kernels::warp_motion_kernel;

/// Source rows y0 ... y1 - 1 from planes to pixels.
TARVO_BAND void pixelBand(Warp warp, float* pixels, int y0, int y1) {
  const long plane = static_cast<long>(warp.h) * warp.p;
  for (int y = y0; y < y1; ++y) {
    const float* from = warp.source + static_cast<long>(y) * warp.p;
    float* row = pixels + static_cast<long>(y) * warp.w * kWarpLanes;
#pragma omp simd
    for (int x = 0; x < warp.w; ++x) {
      row[x * kWarpLanes] = from[x];
      row[x * kWarpLanes + 1] = from[plane + x];
      row[x * kWarpLanes + 2] = from[2 * plane + x];
      row[x * kWarpLanes + 3] = 0.0f;
    }
  }
}

/// At most kSide target pixels side by side.
struct Samples {
  const Warp& warp;
  const float* pixels;
  alignas(64) int at[kSide];     // upper left neighbour [pixels]
  alignas(64) int right[kSide];  // from it to the next column: one pixel, or 0 at the border [floats]
  alignas(64) int below[kSide];  // from it to the next row: one row, or 0 at the border [floats]
  alignas(64) float fx[kSide], fy[kSide];
  alignas(64) int outside[kSide];
  alignas(64) float values[kSide][kWarpLanes];

  /// Positions and validity of the pixels from (x0, y) on.
  TARVO_HOST void locate(int x0, int y, int count) {
    const int i = y * warp.p + x0;
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const float px = static_cast<float>(x0 + k) + warp.u[i + k];
      const float py = static_cast<float>(y) + warp.v[i + k];
      const device::BilinearPosition position(px, py, warp.h, warp.w);
      at[k] = position.y0 * warp.w + position.x0;
      right[k] = (position.x1 - position.x0) * kWarpLanes;
      below[k] = (position.y1 - position.y0) * warp.w * kWarpLanes;
      fx[k] = position.fx;
      fy[k] = position.fy;
      const bool isOutside = warp.outside(px, py);
      outside[k] = isOutside ? 1 : 0;
      warp.valid[i + k] = isOutside ? 0.0f : 1.0f;
    }
  }
  TARVO_HOST void interpolate(int count) {
    for (int k = 0; k < count; ++k) {
      const float* a = pixels + static_cast<long>(at[k]) * kWarpLanes;
      const float* b = a + right[k];
      const float* c = a + below[k];
      const float* d = c + right[k];
#pragma omp simd
      for (int lane = 0; lane < kWarpLanes; ++lane) {
        values[k][lane] = device::bilinear(a[lane], b[lane], c[lane], d[lane], fx[k], fy[k]);
      }
    }
  }
  TARVO_HOST void store(int x0, int y, int count) const {
    for (int channel = 0; channel < kPictureChannels; ++channel) {
      const int i = (channel * warp.h + y) * warp.p + x0;
#pragma omp simd
      for (int k = 0; k < count; ++k) {
        const float other = warp.fallback[i + k], value = values[k][channel];
        warp.out[i + k] = outside[k] != 0 ? other : value;
      }
    }
  }
  TARVO_HOST void run(int x0, int y, int count) {
    locate(x0, y, count);
    interpolate(count);
    store(x0, y, count);
  }
};

/// Target rows y0 ... y1 - 1. The last kSide pixels of a row stand together, some of them done twice.
TARVO_BAND void warpBand(Warp warp, const float* pixels, int y0, int y1) {
  Samples samples{warp, pixels, {}, {}, {}, {}, {}, {}, {}};
  for (int y = y0; y < y1; ++y) {
    if (warp.w < kSide) {
      samples.run(0, y, warp.w);
      continue;
    }
    for (int x = 0; x < warp.w; x += kSide) samples.run(std::min(x, warp.w - kSide), y, kSide);
  }
}

}  // namespace

void warpOnCpu(const Warp& warp, float* pixels) {
  device::cpu::forBands(warp.h, warp.w, [&](int y0, int y1) { pixelBand(warp, pixels, y0, y1); });
  device::cpu::forBands(warp.h, warp.w, [&](int y0, int y1) { warpBand(warp, pixels, y0, y1); });
}

}  // namespace variational
