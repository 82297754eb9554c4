#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/exceptions.h>

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/row_lines.h"

namespace {

void requireSizes(const char* operation, int newX, int newY, bool good) {
  if (good) return;
  std::ostringstream text;
  text << operation << ": newX and newY do not suit, got " << newX << " x " << newY;
  throw std::invalid_argument(text.str());
}

/// What source sample `source` gives to cell `cell` of a shorter line.
struct Overlap {
  int source, cell;
  float length;
};

/// All overlaps of a line of `size` samples with one of `newSize` < size cells, in the order in which a sweep
/// along the line meets them. They are the same for every line of a plane.
std::vector<Overlap> overlapsOf(int size, int newSize) {
  const float cellLength = static_cast<float>(size) / static_cast<float>(newSize);
  std::vector<Overlap> overlaps;
  float room = cellLength;  // left in the current cell
  float remaining = 1.0f;   // of the current sample
  int cell = 0;
  for (int source = 0; source < size && cell < newSize;) {
    if (room > 1.0f) {
      overlaps.push_back({source, cell, remaining});
      room -= remaining;
      remaining = 1.0f;
      ++source;
      if (room > 0.0f) continue;
    } else {
      overlaps.push_back({source, cell, room});
      remaining = 1.0f - room;
    }
    ++cell;
    room = cellLength;
  }
  return overlaps;
}

/// Adds `count` lines side by side: sample n of all lines lies at in + n * count, cell n at out + n * count.
void addOverlaps(const std::vector<Overlap>& overlaps, const float* in, float* out, int count) {
  for (const Overlap& overlap : overlaps) {
    const float* from = in + static_cast<std::ptrdiff_t>(overlap.source) * count;
    float* to = out + static_cast<std::ptrdiff_t>(overlap.cell) * count;
#pragma omp simd
    for (int i = 0; i < count; ++i) to[i] += from[i] * overlap.length;
  }
}

/// Sums over the cells of each row: newX columns. Rows are swept kRowBundle at a time, side by side.
CMatrix<float> reduceRows(const CMatrix<float>& source, int newX) {
  const std::vector<Overlap> overlaps = overlapsOf(source.sizeX(), newX);
  CMatrix<float> result(newX, source.sizeY());
  std::vector<float> lines(static_cast<std::size_t>(source.sizeX()) * kRowBundle);
  std::vector<float> sums(static_cast<std::size_t>(newX) * kRowBundle);
  for (int y = 0; y < source.sizeY(); y += kRowBundle) {
    const int count = source.sizeY() - y < kRowBundle ? source.sizeY() - y : kRowBundle;
    gatherRows(&source(0, y), source.sizeX(), count, lines.data());
    sums.assign(sums.size(), 0.0f);
    addOverlaps(overlaps, lines.data(), sums.data(), count);
    scatterRows(sums.data(), newX, count, &result(0, y));
  }
  return result;
}

/// Sums over the cells of each column: newY rows.
CMatrix<float> reduceColumns(const CMatrix<float>& source, int newY) {
  CMatrix<float> result(source.sizeX(), newY, 0.0f);
  addOverlaps(overlapsOf(source.sizeY(), newY), source.data(), result.data(), source.sizeX());
  return result;
}

/// Weighted sums and weights of the elements of a smaller plane.
struct Splat {
  CMatrix<float> sums, weights;

  Splat(int newX, int newY) : sums(newX, newY, 0.0f), weights(newX, newY, 0.0f) {}

  void add(int x, int y, float share, float value, float confidence) {
    if (x >= sums.sizeX() || y >= sums.sizeY()) return;
    sums(x, y) += share * value;
    weights(x, y) += share * confidence;
  }
  void normalise() {
    for (int i = 0; i < sums.size(); ++i) {
      if (weights.data()[i] > 0.0f) sums.data()[i] /= weights.data()[i];
    }
  }
};

/// What new element i reads from a line of `size` samples: samples `first` and `second`, the second with
/// weight `share`, the first with the rest.
struct Tap {
  int first, second;
  double share;
};

std::vector<Tap> tapsOf(int size, int newSize) {
  const float step = static_cast<float>(size) / static_cast<float>(newSize);
  std::vector<Tap> taps;
  for (int i = 0; i < newSize; ++i) {
    const auto position = static_cast<float>((i + 0.5) * static_cast<double>(step) - 0.5);
    // Rounding can carry a position past the last sample, never below -0.5.
    int first = position < 0.0f ? 0 : static_cast<int>(position);
    const float share = position < 0.0f ? 0.0f : position - static_cast<float>(first);
    if (first >= size) first = size - 1;
    taps.push_back({first, first + 1 < size ? first + 1 : size - 1, static_cast<double>(share)});
  }
  return taps;
}

float blend(float first, float second, double share) {
  return static_cast<float>(static_cast<double>(first) * (1 - share) + static_cast<double>(second) * share);
}

/// Runs operation(plane, z) on a copy of every plane and makes a new tensor of the results.
template <class Operation>
void resamplePlanes(CTensor<float>& tensor, int newX, int newY, const Operation& operation) {
  CTensor<float> result(newX, newY, tensor.sizeZ());
  CMatrix<float> plane;
  for (int z = 0; z < tensor.sizeZ(); ++z) {
    plane = CMatrix<float>(tensor.sizeX(), tensor.sizeY());
    std::copy_n(&tensor(0, 0, z), plane.size(), plane.data());
    operation(plane, z);
    std::copy_n(plane.data(), plane.size(), &result(0, 0, z));
  }
  tensor = std::move(result);
}

}  // namespace

template <typename T>
void CMatrix<T>::downsample(int newX, int newY) {
  requireSizes("CMatrix::downsample", newX, newY, newX >= 1 && newY >= 1 && newX <= sizeX_ && newY <= sizeY_);
  const float average = static_cast<float>(newX * newY) / static_cast<float>(size());
  CMatrix result = newX < sizeX_ ? reduceRows(*this, newX) : *this;
  if (newY < sizeY_) result = reduceColumns(result, newY);
  for (int i = 0; i < result.size(); ++i) result.data_[i] *= average;
  *this = std::move(result);
}

template <typename T>
void CMatrix<T>::downsample(int newX, int newY, CMatrix& confidence) {
  if (confidence.sizeX_ != sizeX_ || confidence.sizeY_ != sizeY_) {
    throw ETensorIncompatibleSize(sizeX_, sizeY_, confidence.sizeX_, confidence.sizeY_);
  }
  requireSizes("CMatrix::downsample", newX, newY, newX >= 1 && newY >= 1);
  const float fx = static_cast<float>(newX) / static_cast<float>(sizeX_);
  const float fy = static_cast<float>(newY) / static_cast<float>(sizeY_);
  Splat splat(newX, newY);
  for (int y = 0; y < sizeY_; ++y) {
    const float py = static_cast<float>(y) * fy;
    const int iy = static_cast<int>(py);
    const float dy = py - static_cast<float>(iy);
    for (int x = 0; x < sizeX_; ++x) {
      const float c = confidence(x, y);
      if (!(c > 0.0f)) continue;
      const float value = (*this)(x, y) * c;
      const float px = static_cast<float>(x) * fx;
      const int ix = static_cast<int>(px);
      const float dx = px - static_cast<float>(ix);
      splat.add(ix, iy, (1 - dx) * (1 - dy), value, c);
      splat.add(ix + 1, iy, (1 - dy) * dx, value, c);
      splat.add(ix, iy + 1, (1 - dx) * dy, value, c);
      splat.add(ix + 1, iy + 1, dx * dy, value, c);
    }
  }
  splat.normalise();
  *this = std::move(splat.sums);
}

template <typename T>
void CMatrix<T>::upsampleBilinear(int newX, int newY) {
  requireSizes("CMatrix::upsampleBilinear", newX, newY, newX >= 1 && newY >= 1 && size() > 0);
  const std::vector<Tap> columns = tapsOf(sizeX_, newX);
  const std::vector<Tap> rows = tapsOf(sizeY_, newY);
  CMatrix result(newX, newY);
  for (int y = 0; y < newY; ++y) {
    const float* top = data_ + static_cast<std::ptrdiff_t>(rows[y].first) * sizeX_;
    const float* bottom = data_ + static_cast<std::ptrdiff_t>(rows[y].second) * sizeX_;
    for (int x = 0; x < newX; ++x) {
      const Tap& tap = columns[x];
      result(x, y) = blend(blend(top[tap.first], top[tap.second], tap.share),
                           blend(bottom[tap.first], bottom[tap.second], tap.share), rows[y].share);
    }
  }
  *this = std::move(result);
}

template <typename T>
void CTensor<T>::downsample(int newX, int newY) {
  requireSizes("CTensor::downsample", newX, newY, newX >= 1 && newY >= 1 && newX <= sizeX_ && newY <= sizeY_);
  resamplePlanes(*this, newX, newY, [=](CMatrix<float>& plane, int) { plane.downsample(newX, newY); });
}

template <typename T>
void CTensor<T>::downsample(int newX, int newY, CTensor& confidence) {
  if (confidence.sizeX_ != sizeX_ || confidence.sizeY_ != sizeY_) {
    throw ETensorIncompatibleSize(sizeX_, sizeY_, confidence.sizeX_, confidence.sizeY_);
  }
  requireSizes("CTensor::downsample", newX, newY, newX >= 1 && newY >= 1);
  if (confidence.sizeZ_ < sizeZ_) {
    throw std::invalid_argument("CTensor::downsample: confidence has " + std::to_string(confidence.sizeZ_) +
                                " planes for " + std::to_string(sizeZ_));
  }
  CMatrix<float> weights(sizeX_, sizeY_);
  resamplePlanes(*this, newX, newY, [&](CMatrix<float>& plane, int z) {
    std::copy_n(&confidence(0, 0, z), weights.size(), weights.data());
    plane.downsample(newX, newY, weights);
  });
}

template <typename T>
void CTensor<T>::upsampleBilinear(int newX, int newY) {
  requireSizes("CTensor::upsampleBilinear", newX, newY, newX >= 1 && newY >= 1 && sizeX_ * sizeY_ > 0);
  resamplePlanes(*this, newX, newY, [=](CMatrix<float>& plane, int) { plane.upsampleBilinear(newX, newY); });
}

template void CMatrix<float>::downsample(int, int);
template void CMatrix<float>::downsample(int, int, CMatrix<float>&);
template void CMatrix<float>::upsampleBilinear(int, int);
template void CTensor<float>::downsample(int, int);
template void CTensor<float>::downsample(int, int, CTensor<float>&);
template void CTensor<float>::upsampleBilinear(int, int);
