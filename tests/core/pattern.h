#pragma once

#include <tarvo/CTensor.h>

#include <algorithm>
#include <cstdint>

/// Values in 0 ... 255 with fractions, without regularity along any axis; the same on every run.
inline CTensor<float> patternTensor(int sizeX, int sizeY, int sizeZ) {
  CTensor<float> tensor(sizeX, sizeY, sizeZ);
  std::uint32_t state = 12345;
  for (int i = 0; i < tensor.size(); i++) {
    state = state * 1664525u + 1013904223u;
    tensor.data()[i] = static_cast<float>(state >> 8) / 65793.0f;
  }
  return tensor;
}

/// Whether two containers hold equally many and equal elements.
template <typename First, typename Second>
bool sameElements(const First& a, const Second& b) {
  return std::equal(a.data(), a.data() + a.size(), b.data(), b.data() + b.size());
}
