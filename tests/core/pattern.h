#pragma once

#include <gtest/gtest.h>
#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/NFilter.h>
#include <tarvo/exceptions.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

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

/// A matrix of these elements, row by row.
template <typename T = float>
CMatrix<T> matrix(int sizeX, int sizeY, const std::vector<T>& values) {
  CMatrix<T> result(sizeX, sizeY);
  std::copy(values.begin(), values.end(), result.data());
  return result;
}
inline CMatrix<float> patternMatrix(int sizeX, int sizeY) {
  const CTensor<float> tensor = patternTensor(sizeX, sizeY, 1);
  return matrix(sizeX, sizeY, std::vector<float>(tensor.data(), tensor.data() + tensor.size()));
}

/// Whether two containers hold equally many and equal elements.
template <typename First, typename Second>
bool sameElements(const First& a, const Second& b) {
  return std::equal(a.data(), a.data() + a.size(), b.data(), b.data() + b.size());
}
