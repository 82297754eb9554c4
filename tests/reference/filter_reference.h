#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "support/planes.h"

/// Plain twins of the filters: loops over pixels and taps, every step fused, starting from 0.
namespace reference {

/// Correlation along x (or y), borders clamped; n = 2 (n / 2) + 1 taps.
inline Planes convolve(const Planes& in, const std::vector<float>& mask, bool alongX) {
  Planes out(in.h, in.w, in.count);
  const int n = static_cast<int>(mask.size());
  forPixels(in.h, in.w, in.count, [&](int x, int y, int k) {
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) {
      const int column = alongX ? std::clamp(x - n / 2 + i, 0, in.w - 1) : x;
      const int row = alongX ? y : std::clamp(y - n / 2 + i, 0, in.h - 1);
      sum = std::fmaf(mask[static_cast<std::size_t>(i)], in.at(column, row, k), sum);
    }
    out.at(x, y, k) = sum;
  });
  return out;
}

inline Planes convolveX(const Planes& in, const std::vector<float>& mask) {
  return convolve(in, mask, true);
}
inline Planes convolveY(const Planes& in, const std::vector<float>& mask) {
  return convolve(in, mask, false);
}

inline int mirrored(int g, int n) {
  const int distance = std::abs(g);
  return distance < n - 1 ? distance : 2 * n - 2 - distance;
}

/// Two-dimensional correlation with fh rows of fw taps; borders mirrored without repeating the border pixel,
/// or clamped.
inline Planes convolve2d(const Planes& in, const std::vector<float>& mask, int fh, int fw, bool mirror) {
  Planes out(in.h, in.w);
  forPixels(in.h, in.w, [&](int x, int y) {
    float sum = 0.0f;
    forPixels(fh, fw, [&](int i, int j) {
      const int column = x - fw / 2 + i;
      const int row = y - fh / 2 + j;
      const float sample = mirror ? in.at(mirrored(column, in.w), mirrored(row, in.h))
                                  : in.at(std::clamp(column, 0, in.w - 1), std::clamp(row, 0, in.h - 1));
      sum = std::fmaf(mask[static_cast<std::size_t>(j * fw + i)], sample, sum);
    });
    out.at(x, y) = sum;
  });
  return out;
}

}  // namespace reference
