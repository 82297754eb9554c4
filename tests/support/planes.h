#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

/// Calls body(x, y) for every pixel, row by row.
template <class Body>
void forPixels(int h, int w, const Body& body) {
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) body(x, y);
  }
}

/// Calls body(x, y, k) for every pixel of every plane, plane by plane.
template <class Body>
void forPixels(int h, int w, int planes, const Body& body) {
  for (int k = 0; k < planes; ++k) {
    forPixels(h, w, [&](int x, int y) { body(x, y, k); });
  }
}

/// Stacked host planes without padding: element (x, y) of plane k is at (k * h + y) * w + x.
struct Planes {
  int h = 0, w = 0, count = 0;
  std::vector<float> values;

  Planes() = default;
  Planes(int rows, int columns, int planes = 1, float fill = 0.0f)
      : h(rows),
        w(columns),
        count(planes),
        values(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns) *
                   static_cast<std::size_t>(planes),
               fill) {}

  float& at(int x, int y, int k = 0) { return values[index(x, y, k)]; }
  float at(int x, int y, int k = 0) const { return values[index(x, y, k)]; }
  float* data() { return values.data(); }
  const float* data() const { return values.data(); }

  /// Plane k alone.
  Planes plane(int k) const {
    Planes one(h, w);
    std::copy_n(values.begin() + static_cast<std::ptrdiff_t>(index(0, 0, k)), one.values.size(),
                one.values.begin());
    return one;
  }

 private:
  std::size_t index(int x, int y, int k) const {
    return (static_cast<std::size_t>(k) * static_cast<std::size_t>(h) + static_cast<std::size_t>(y)) *
               static_cast<std::size_t>(w) +
           static_cast<std::size_t>(x);
  }
};

/// Numbers without regularity, the same on every run.
class Random {
 public:
  explicit Random(std::uint32_t seed) : state_(seed * 2654435761u + 1u) {}
  /// A number in [low, high), a multiple of (high - low) / 2^24.
  float next(float low, float high) {
    state_ = state_ * 1664525u + 1013904223u;
    return low + (high - low) * (static_cast<float>(state_ >> 8) / 16777216.0f);
  }

 private:
  std::uint32_t state_;
};

inline Planes randomPlanes(int h, int w, int count, std::uint32_t seed, float low = 0.0f,
                           float high = 255.0f) {
  Planes planes(h, w, count);
  Random random(seed);
  for (float& value : planes.values) value = random.next(low, high);
  return planes;
}

/// Heights and widths that are no multiple of anything, the smallest ones, and one with more than one
/// segment, block and band in every direction.
struct Size {
  int h, w;
};
constexpr Size kSizes[] = {{1, 1},   {1, 7},   {9, 1},   {2, 3},    {15, 17},
                           {16, 16}, {20, 33}, {21, 37}, {483, 637}};
