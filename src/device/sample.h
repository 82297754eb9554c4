#pragma once

#include <algorithm>
#include <cmath>

#include "device/kernel.h"

namespace device {

/// Whether [a, a + n) and [b, b + m) share an element. A routine whose source may overlap its output copies
/// the source then.
inline bool overlap(const float* a, std::size_t n, const float* b, std::size_t m) {
  return a < b + m && b < a + n;
}

/// Where bilinear interpolation reads an h x w plane for position (px, py): columns x0 and x1, rows y0 and
/// y1, and the fractions between them. A position beyond a border reads the border; a not-a-number counts as
/// 0.
struct BilinearPosition {
  int x0, x1, y0, y1;
  float fx, fy;

  TARVO_HOST_DEVICE BilinearPosition(float px, float py, int h, int w) {
    const float cx = std::min(std::max(0.0f, px), static_cast<float>(w - 1));
    const float cy = std::min(std::max(0.0f, py), static_cast<float>(h - 1));
    x0 = static_cast<int>(cx);
    y0 = static_cast<int>(cy);
    x1 = std::min(x0 + 1, w - 1);
    y1 = std::min(y0 + 1, h - 1);
    fx = cx - static_cast<float>(x0);
    fy = cy - static_cast<float>(y0);
  }
};

/// Bilinear interpolation of the samples a, b above and c, d below with exact weights: along x first, each
/// step a fused multiply-add.
TARVO_HOST_DEVICE float bilinear(float a, float b, float c, float d, float fx, float fy) {
  const float top = fmaf(fx, b - a, a);
  const float bottom = fmaf(fx, d - c, c);
  return fmaf(fy, bottom - top, top);
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

  /// Bilinear interpolation at (px, py).
  TARVO_HOST_DEVICE float bilinear(float px, float py) const {
    const BilinearPosition at(px, py, h, w);
    const int row0 = at.y0 * p;
    const int row1 = at.y1 * p;
    return device::bilinear(data[row0 + at.x0], data[row0 + at.x1], data[row1 + at.x0], data[row1 + at.x1],
                            at.fx, at.fy);
  }
};

}  // namespace device
