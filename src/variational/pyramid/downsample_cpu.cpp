#include "variational/pyramid/downsample_cpu.h"

#include <algorithm>
#include <cmath>

#include "device/cpu/band.h"
#include "device/cpu/team.h"
#include "variational/pyramid/pyramid_kernels.h"

namespace variational {
namespace {

/// Target pixels that are averaged side by side on the CPU device.
constexpr int kSide = 64;

/// Footprints of up to kSide neighbouring target columns.
struct Columns {
  int first[kSide], last[kSide], partial[kSide];
  float start[kSide], rest[kSide];
  int count;  ///< columns in use
  int most;   ///< samples of the widest footprint

  TARVO_HOST_DEVICE void set(int x0, int outW, int inW) {
    const float scale = static_cast<float>(inW) / static_cast<float>(outW);
    count = outW - x0 < kSide ? outW - x0 : kSide;
    most = 0;
    for (int k = 0; k < count; ++k) {
      const kernels::Footprint footprint(x0 + k, scale, inW);
      first[k] = footprint.first;
      last[k] = footprint.last;
      partial[k] = footprint.partial;
      start[k] = footprint.start(footprint.first);
      rest[k] = footprint.rest;
      const int samples = footprint.last - footprint.first + 1;
      if (samples > most) most = samples;
    }
  }

  /// Area of sample `step` of column k's footprint; rowStart and rowEnd are the lengths of its row.
  TARVO_HOST_DEVICE float area(int k, int step, float rowStart, float rowEnd) const {
    const float columnStart = step == 0 ? start[k] : 1.0f;
    const float columnEnd = first[k] + step == partial[k] ? rest[k] : 1.0f;
    return rowStart * columnStart * rowEnd * columnEnd;
  }
};

struct Job {
  const float* in;
  int inH, inW, inP;
  float* out;
  int outH, outW, outP;
  const float* weight;
};

/// Adds one source row to the sums; rowStart and rowEnd are the row's lengths.
TARVO_HOST_DEVICE void addRow(const Columns& columns, const float* row, float rowStart, float rowEnd,
                              float* sums) {
  const int count = columns.count;
  for (int step = 0; step < columns.most; ++step) {
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const int i = columns.first[k] + step;
      const float area = columns.area(k, step, rowStart, rowEnd);
      const float sum = fmaf(area, row[std::min(i, columns.last[k])], sums[k]);
      sums[k] = i <= columns.last[k] ? sum : sums[k];
    }
  }
}

/// The same with weights; a sample counts where weight and area are positive.
TARVO_HOST_DEVICE void addWeightedRow(const Columns& columns, const float* row, const float* weights,
                                      float rowStart, float rowEnd, float* sums, float* totals) {
  const int count = columns.count;
  for (int step = 0; step < columns.most; ++step) {
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const int i = columns.first[k] + step;
      const int read = std::min(i, columns.last[k]);
      const float area = columns.area(k, step, rowStart, rowEnd);
      const float m = weights[read];
      const bool counts = (i <= columns.last[k]) & (m > 0.0f) & (area > 0.0f);
      const float sum = fmaf(m * area, row[read], sums[k]);
      const float total = totals[k] + m * area;
      sums[k] = counts ? sum : sums[k];
      totals[k] = counts ? total : totals[k];
    }
  }
}

/// Whether any of n weights is positive: most rows of a sparse match field hold none.
TARVO_HOST_DEVICE bool anyPositive(const float* weights, int n) {
  int positive = 0;
#pragma omp simd reduction(| : positive)
  for (int i = 0; i < n; ++i) positive |= weights[i] > 0.0f ? 1 : 0;  // vectorised
  return positive != 0;
}

TARVO_BAND void plainBand(Job job, int y0, int y1) {
  const float sx = static_cast<float>(job.inW) / static_cast<float>(job.outW);
  const float sy = static_cast<float>(job.inH) / static_cast<float>(job.outH);
  Columns columns;
  for (int x0 = 0; x0 < job.outW; x0 += kSide) {
    columns.set(x0, job.outW, job.inW);
    for (int y = y0; y < y1; ++y) {
      const kernels::Footprint rows(y, sy, job.inH);
      float sums[kSide] = {};
      for (int j = rows.first; j <= rows.last; ++j) {
        addRow(columns, job.in + static_cast<long>(j) * job.inP, rows.start(j), rows.end(j), sums);
      }
      float* out = job.out + static_cast<long>(y) * job.outP + x0;
      for (int k = 0; k < columns.count; ++k) out[k] = sums[k] / (sx * sy);
    }
  }
}

TARVO_BAND void weightedBand(Job job, int y0, int y1) {
  const float sy = static_cast<float>(job.inH) / static_cast<float>(job.outH);
  Columns columns;
  for (int x0 = 0; x0 < job.outW; x0 += kSide) {
    columns.set(x0, job.outW, job.inW);
    const int left = columns.first[0];
    const int width = columns.last[columns.count - 1] + 1 - left;
    for (int y = y0; y < y1; ++y) {
      const kernels::Footprint rows(y, sy, job.inH);
      float sums[kSide] = {};
      float totals[kSide] = {};
      for (int j = rows.first; j <= rows.last; ++j) {
        const long row = static_cast<long>(j) * job.inP;
        if (!anyPositive(job.weight + row + left, width)) continue;
        addWeightedRow(columns, job.in + row, job.weight + row, rows.start(j), rows.end(j), sums, totals);
      }
      float* out = job.out + static_cast<long>(y) * job.outP + x0;
      for (int k = 0; k < columns.count; ++k) out[k] = sums[k] / totals[k];
    }
  }
}

}  // namespace

void downsampleOnCpu(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                     const float* weight) {
  if (outH < 1 || outW < 1) return;
  const Job job{in, inH, inW, inP, out, outH, outW, outP, weight};
  // The work is that of the source's pixels: a target row counts as its share of them.
  const int share = static_cast<int>(std::min(static_cast<long>(inH) * inW / outH + 1, 1L << 30));
  device::cpu::forBands(outH, share, [&job](int y0, int y1) {
    if (job.weight != nullptr) {
      weightedBand(job, y0, y1);
    } else {
      plainBand(job, y0, y1);
    }
  });
}

}  // namespace variational
