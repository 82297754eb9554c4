#pragma once

#include <cmath>
#include <cstdint>

#include "support/planes.h"

// Pictures for matching, three channels in 0 ... 255. Coordinates may be negative: a shifted picture is the
// same function read elsewhere.

inline float hashed(int x, int y, int channel) {
  auto n = static_cast<std::uint32_t>(x) * 374761393u + static_cast<std::uint32_t>(y) * 668265263u +
           static_cast<std::uint32_t>(channel) * 2246822519u;
  n = (n ^ (n >> 13)) * 1274126177u;
  n = (n ^ (n >> 15)) * 2246822519u;
  return static_cast<float>((n ^ (n >> 16)) >> 8) / 16777216.0f;
}

/// Random values on a lattice of 6 pixels, blended between.
inline float textured(int x, int y, int channel) {
  constexpr int kLattice = 6;
  const int x0 = (x + 6000) / kLattice, y0 = (y + 6000) / kLattice;
  const float fx = static_cast<float>((x + 6000) % kLattice) / kLattice;
  const float fy = static_cast<float>((y + 6000) % kLattice) / kLattice;
  const auto row = [&](int j) {
    return hashed(x0, j, channel) * (1.0f - fx) + hashed(x0 + 1, j, channel) * fx;
  };
  return 255.0f * (row(y0) * (1.0f - fy) + row(y0 + 1) * fy);
}

inline float noise(int x, int y, int channel) {
  return 255.0f * hashed(x, y, channel);
}
inline float constant(int /*x*/, int /*y*/, int /*channel*/) {
  return 100.0f;
}
inline float checkerboard(int x, int y, int /*channel*/) {
  return ((x + 6000) / 8 + (y + 6000) / 8) % 2 == 0 ? 60.0f : 180.0f;
}
/// The same, paler by so little that the colours still pass: equal distances other than 0.
inline float paleCheckerboard(int x, int y, int channel) {
  return checkerboard(x, y, channel) == 60.0f ? 63.0f : 175.0f;
}
inline float stripes(int x, int /*y*/, int /*channel*/) {
  return (x + 6000) / 5 % 2 == 0 ? 20.0f : 90.0f;
}
/// Few grey levels in patches: many equal distances.
inline float quantised(int x, int y, int channel) {
  return std::floor(textured(x, y, channel) / 64.0f) * 10.0f + 80.0f;
}

/// The picture whose pixel (x, y) is function(x - dx, y - dy): the contents moved by (dx, dy).
template <class Function>
Planes picture(int h, int w, const Function& function, int dx = 0, int dy = 0) {
  Planes planes(h, w, 3);
  forPixels(h, w, 3, [&](int x, int y, int c) { planes.at(x, y, c) = function(x - dx, y - dy, c); });
  return planes;
}
