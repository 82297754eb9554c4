#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "device/kernel.h"

/// The fixed shape of the solver's dot products, the same on every device.
///
/// The vectors are stacks of two h x w planes. Every row is cut into segments of kSegment columns, and every
/// segment is summed by kLanes lanes: lane j starts from 0 and takes columns j, j + kLanes, ... of its
/// segment in order, at each column first the product in plane one, then the one in plane two, each a fused
/// multiply-add. The lanes of a segment are added by halving (j + 16 to j, j + 8 to j, ... j + 1 to j). All
/// segment sums, row by row, are then added by kFinalLanes lanes, lane j taking sums j, j + kFinalLanes, ...
/// in order, and these lanes by halving. The result depends on h, w and the values alone, not on the pitch,
/// threads, blocks or vector width.
namespace device {

constexpr int kSegment = 256;
constexpr int kLanes = 32;
constexpr int kFinalLanes = 1024;

TARVO_HOST_DEVICE int segmentsPerRow(int w) {
  return (w + kSegment - 1) / kSegment;
}

/// Floats of scratch for the segment sums of an h x w plane.
inline std::size_t dotScratch(int h, int w) {
  return static_cast<std::size_t>(h) * static_cast<std::size_t>(segmentsPerRow(w));
}

/// *result = a * b over two-plane stacks of h x w, pitch p, in this shape; sums: scratch of dotScratch
/// floats.
struct DotProduct {
  const float *a, *b;
  int h, w, p;
  float *sums, *result;
};

namespace cpu {

/// The sum of a segment's lanes by halving, in registers.
TARVO_HOST float halved(const float* lanes) {
  using Eight = float __attribute__((vector_size(32)));
  Eight parts[kLanes / 8];
  std::memcpy(parts, lanes, sizeof parts);
  const Eight s = (parts[0] + parts[2]) + (parts[1] + parts[3]);
  return ((s[0] + s[4]) + (s[2] + s[6])) + ((s[1] + s[5]) + (s[3] + s[7]));
}

/// Segment sums of one row of w columns into sums[0 ... segments - 1]. row.at(x, sum) adds column x to the
/// sum of a lane.
template <class RowOf>
TARVO_HOST void sumRow(int w, float* sums, const RowOf& row) {
  for (int start = 0; start < w; start += kSegment) {
    const int end = start + kSegment < w ? start + kSegment : w;
    float lanes[kLanes] = {};
    int x = start;
    for (; x + kLanes <= end; x += kLanes) {
#pragma omp simd
      for (int j = 0; j < kLanes; ++j) lanes[j] = row.at(x + j, lanes[j]);
    }
    const int rest = end - x;
#pragma omp simd
    for (int j = 0; j < rest; ++j) lanes[j] = row.at(x + j, lanes[j]);
    *sums++ = halved(lanes);
  }
}

/// a1 * b1 + a2 * b2, column by column.
struct DotRow {
  const float *a1, *b1, *a2, *b2;
  TARVO_HOST_DEVICE float at(int x, float sum) const { return fmaf(a2[x], b2[x], fmaf(a1[x], b1[x], sum)); }
};

TARVO_HOST void dotRow(const float* a1, const float* b1, const float* a2, const float* b2, int w,
                       float* sums) {
  sumRow(w, sums, DotRow{a1, b1, a2, b2});
}

/// The final sum of n segment sums. Lanes without a sum would hold 0 and change nothing; they are left out.
inline float sumSegments(const float* sums, int n) {
  int width = 1;
  while (width < n && width < kFinalLanes) width *= 2;
  float lanes[kFinalLanes];
  std::fill(lanes, lanes + width, 0.0f);
  for (int start = 0; start < n; start += kFinalLanes) {
    const int count = n - start < kFinalLanes ? n - start : kFinalLanes;
    for (int j = 0; j < count; ++j) lanes[j] += sums[start + j];
  }
  for (int half = width / 2; half > 0; half /= 2) {
    for (int j = 0; j < half; ++j) lanes[j] += lanes[j + half];
  }
  return lanes[0];
}

inline void run(const DotProduct& dot) {
  const long n = static_cast<long>(dot.h) * dot.p;
  const int segments = segmentsPerRow(dot.w);
  for (int y = 0; y < dot.h; ++y) {
    const float* a = dot.a + static_cast<long>(y) * dot.p;
    const float* b = dot.b + static_cast<long>(y) * dot.p;
    dotRow(a, b, a + n, b + n, dot.w, dot.sums + static_cast<long>(y) * segments);
  }
  *dot.result = sumSegments(dot.sums, dot.h * segments);
}

}  // namespace cpu
}  // namespace device
