#pragma once

#include <tarvo/CTensor.h>

#include <algorithm>
#include <cmath>

#include "support/planes.h"

/// A smooth colour texture in 0 ... 255, given everywhere. Its waves bend, so that it does not repeat itself
/// within a few hundred pixels.
inline float textureAt(double x, double y, int channel) {
  const double c = channel;
  return static_cast<float>(128.0 + 45.0 * std::sin(0.31 * x + 0.17 * y + 0.0013 * x * y + c) +
                            35.0 * std::sin(0.13 * x - 0.23 * y + 0.0009 * x * x + 2.0 * c) +
                            25.0 * std::sin(0.05 * x + 0.41 * y - 0.0011 * y * y - c) +
                            20.0 * std::sin(0.53 * x - 0.37 * y + 0.0007 * (x + y) * (x - 2.0 * y)));
}

/// The texture moved by (dx, dy) pixels: the flow from render(h, w, 0, 0) to render(h, w, dx, dy) is (dx, dy)
/// everywhere.
inline Planes render(int h, int w, double dx, double dy) {
  Planes picture(h, w, 3);
  forPixels(h, w, 3, [&](int x, int y, int c) { picture.at(x, y, c) = textureAt(x - dx, y - dy, c); });
  return picture;
}

/// The same flow at every pixel.
inline Planes uniformFlow(int h, int w, float u, float v) {
  Planes flow(h, w, 2);
  std::fill(flow.values.begin(), flow.values.begin() + static_cast<std::ptrdiff_t>(h) * w, u);
  std::fill(flow.values.begin() + static_cast<std::ptrdiff_t>(h) * w, flow.values.end(), v);
  return flow;
}

inline CTensor<float> tensorOf(const Planes& planes) {
  CTensor<float> tensor(planes.w, planes.h, planes.count);
  std::copy(planes.values.begin(), planes.values.end(), tensor.data());
  return tensor;
}

inline Planes planesOf(const CTensor<float>& tensor) {
  Planes planes(tensor.sizeY(), tensor.sizeX(), tensor.sizeZ());
  std::copy(tensor.data(), tensor.data() + tensor.size(), planes.values.begin());
  return planes;
}
