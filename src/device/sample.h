#pragma once

#include <algorithm>
#include <cmath>

#include "device/kernel.h"

namespace device {

/// Whether [a, a + n) and [b, b + m) share an element: a routine whose source may overlap its output copies
/// it.
inline bool overlap(const float* a, std::size_t n, const float* b, std::size_t m) {
  return a < b + m && b < a + n;
}

/// A plane read with clamped coordinates: positions beyond a border read the border.
struct View {
  const float* data;
  int h, w, p;

  TARVO_HOST_DEVICE float point(int x, int y) const {
    const int cx = std::min(std::max(x, 0), w - 1);
    const int cy = std::min(std::max(y, 0), h - 1);
    return data[cy * p + cx];
  }

  /// Bilinear interpolation at (px, py) with exact weights: along x first, each step one fused multiply-add.
  /// A not-a-number position reads as 0.
  TARVO_HOST_DEVICE float bilinear(float px, float py) const {
    const float cx = std::min(std::max(0.0f, px), static_cast<float>(w - 1));
    const float cy = std::min(std::max(0.0f, py), static_cast<float>(h - 1));
    const int x0 = static_cast<int>(cx);
    const int y0 = static_cast<int>(cy);
    const int x1 = std::min(x0 + 1, w - 1);
    const int row0 = y0 * p;
    const int row1 = std::min(y0 + 1, h - 1) * p;
    const float fx = cx - static_cast<float>(x0);
    const float fy = cy - static_cast<float>(y0);
    const float top = fmaf(fx, data[row0 + x1] - data[row0 + x0], data[row0 + x0]);
    const float bottom = fmaf(fx, data[row1 + x1] - data[row1 + x0], data[row1 + x0]);
    return fmaf(fy, bottom - top, top);
  }
};

}  // namespace device
