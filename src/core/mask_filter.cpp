#include <tarvo/NFilter.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "core/same_size.h"

namespace {

/// Index of the sample for position j of a line of `length` samples. A position outside the line is mirrored
/// about the border, the border sample repeated, until it lies inside.
int mirrored(std::ptrdiff_t j, int length) {
  const std::ptrdiff_t period = 2 * static_cast<std::ptrdiff_t>(length);
  j %= period;
  if (j < 0) j += period;
  return static_cast<int>(j < length ? j : period - 1 - j);
}

/// Four floats that one statement adds or multiplies lane by lane.
using FourLanes = float __attribute__((vector_size(4 * sizeof(float))));

/// Outputs first ... first + 4 * kVectors - 1 of weightedSum. The sums stay in registers over all taps. The
/// vectors are explicit because the compiler would interleave a plain loop over the lanes with the one over
/// the taps, and then vectorise neither.
template <int kVectors>
void weightedSumBlock(float* out, const float* const* taps, const CFilter<float>& mask, int first) {
  const float* weights = mask.data();
  const int size = mask.size();
  FourLanes sum[kVectors];
  for (FourLanes& lanes : sum) lanes = FourLanes{};
  for (int i = 0; i < size; i++) {
    const float* in = taps[i] + first;
#pragma GCC unroll 8
    for (int v = 0; v < kVectors; v++) {
      FourLanes lanes;
      std::memcpy(&lanes, in + 4 * v, sizeof lanes);
      sum[v] += weights[i] * lanes;
    }
  }
  std::memcpy(out + first, sum, sizeof sum);
}

/// out[j] = sum over i of mask(i) * taps[i][j] for j = 0 ... n - 1, added up in increasing i from 0.
void weightedSum(float* out, int n, const float* const* taps, const CFilter<float>& mask) {
  int j = 0;
  for (; j + 32 <= n; j += 32) weightedSumBlock<8>(out, taps, mask, j);
  for (; j + 4 <= n; j += 4) weightedSumBlock<1>(out, taps, mask, j);
  for (; j < n; j++) {
    float sum = 0;
    for (int i = 0; i < mask.size(); i++) sum += mask(i) * taps[i][j];
    out[j] = sum;
  }
}

/// Filters `rows` rows of `length` samples along the row. Each row is first copied between its mirrored
/// margins, so that no output needs a border test.
void filterRows(const float* source, float* result, int length, int rows, const CFilter<float>& mask) {
  if (length == 0) return;
  const std::ptrdiff_t before = mask.centre();
  std::vector<float> padded(static_cast<std::size_t>(length) + mask.size());
  const auto end = static_cast<std::ptrdiff_t>(padded.size());
  std::vector<const float*> taps(mask.size());
  for (int i = 0; i < mask.size(); i++) taps[i] = padded.data() + i;
  for (int y = 0; y < rows; y++, source += length, result += length) {
    for (std::ptrdiff_t q = 0; q < before; q++) padded[q] = source[mirrored(q - before, length)];
    std::copy_n(source, length, padded.data() + before);
    for (std::ptrdiff_t q = before + length; q < end; q++) padded[q] = source[mirrored(q - before, length)];
    weightedSum(result, length, taps.data(), mask);
  }
}

/// Filters across `count` runs of `length` consecutive elements (rows of a plane, or whole planes): every
/// output run is a weighted sum of whole runs.
void filterAcross(const float* source, float* result, int length, int count, const CFilter<float>& mask) {
  if (count == 0) return;
  std::vector<const float*> runs(static_cast<std::size_t>(count) + mask.size());
  for (std::size_t q = 0; q < runs.size(); q++) {
    const auto position = static_cast<std::ptrdiff_t>(q) - mask.centre();
    runs[q] = source + static_cast<std::ptrdiff_t>(mirrored(position, count)) * length;
  }
  for (int p = 0; p < count; p++, result += length) weightedSum(result, length, runs.data() + p, mask);
}

}  // namespace

namespace NFilter {

template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, const CFilter<T>& mask, int, int) {
  requireSameSize(source, result);
  filterRows(source.data(), result.data(), source.sizeX(), source.sizeY() * source.sizeZ(), mask);
}

template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, int, const CFilter<T>& mask, int) {
  requireSameSize(source, result);
  const int plane = source.sizeX() * source.sizeY();
  for (int z = 0; z < source.sizeZ(); z++) {
    const std::ptrdiff_t start = static_cast<std::ptrdiff_t>(z) * plane;
    filterAcross(source.data() + start, result.data() + start, source.sizeX(), source.sizeY(), mask);
  }
}

template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, int, int, const CFilter<T>& mask) {
  requireSameSize(source, result);
  filterAcross(source.data(), result.data(), source.sizeX() * source.sizeY(), source.sizeZ(), mask);
}

template <typename T>
void filter(const CMatrix<T>& source, CMatrix<T>& result, const CFilter<T>& mask, int) {
  requireSameSize(source, result);
  filterRows(source.data(), result.data(), source.sizeX(), source.sizeY(), mask);
}

template <typename T>
void filter(const CMatrix<T>& source, CMatrix<T>& result, int, const CFilter<T>& mask) {
  requireSameSize(source, result);
  filterAcross(source.data(), result.data(), source.sizeX(), source.sizeY(), mask);
}

template void filter<float>(const CTensor<float>&, CTensor<float>&, const CFilter<float>&, int, int);
template void filter<float>(const CTensor<float>&, CTensor<float>&, int, const CFilter<float>&, int);
template void filter<float>(const CTensor<float>&, CTensor<float>&, int, int, const CFilter<float>&);
template void filter<float>(const CMatrix<float>&, CMatrix<float>&, const CFilter<float>&, int);
template void filter<float>(const CMatrix<float>&, CMatrix<float>&, int, const CFilter<float>&);

}  // namespace NFilter
