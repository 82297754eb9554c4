#include "variational/filter/weighted_median_cpu.h"

#include <algorithm>
#include <limits>

#include "device/cpu/band.h"
#include "device/cpu/team.h"

namespace variational {
namespace {

constexpr int kWide = 32;   // pixels side by side
constexpr int kPlanes = 6;  // u, v, the channels, valid
constexpr float kOutside = std::numeric_limits<float>::quiet_NaN();

using Median = kernels::WeightedMedian;
using Interval = kernels::MedianInterval;

/// The windows of kWide pixels of a row: where they start in each plane, and the floats from row to row.
struct Source {
  const float* plane[kPlanes];
  long pitch;
};

/// Windows that reach beyond the picture, copied. What is not a number has no weight and is below no limit.
template <int kRadius>
struct Border {
  static constexpr int kSide = 2 * kRadius + 1, kColumns = kWide + 2 * kRadius;
  float values[kPlanes][kSide][kColumns];

  TARVO_HOST Source copy(const Median& median, const float* const* planes, int x0, int y) {
    Source copied;
    for (int k = 0; k < kPlanes; ++k) {
      for (int j = 0; j < kSide; ++j) {
        const int row = y - kRadius + j;
        const bool isRow = row >= 0 && row < median.h;
        for (int i = 0; i < kColumns; ++i) {
          const int column = x0 - kRadius + i;
          values[k][j][i] = isRow && column >= 0 && column < median.w
                                ? planes[k][static_cast<long>(row) * median.p + column]
                                : kOutside;
        }
      }
      copied.plane[k] = values[k][0];
    }
    copied.pitch = kColumns;
    return copied;
  }
};

/// The intervals of one component of kWide pixels.
struct Intervals {
  alignas(64) float low[kWide], high[kWide];

  TARVO_HOST Interval at(int k) const {
    Interval interval;
    interval.low = low[k];
    interval.high = high[k];
    return interval;
  }
  TARVO_HOST void set(int k, const Interval& interval) {
    low[k] = interval.low;
    high[k] = interval.high;
  }

  template <int kRadius>
  TARVO_HOST void setRanges(const float* plane, long pitch) {
    constexpr int kSide = 2 * kRadius + 1, kColumns = kWide + 2 * kRadius;
    float lows[kColumns], highs[kColumns];
#pragma omp simd
    for (int k = 0; k < kColumns; ++k) {
      Interval column;
      TARVO_UNROLL
      for (int j = 0; j < kSide; ++j) column.take(plane[j * pitch + k]);
      lows[k] = column.low;
      highs[k] = column.high;
    }
#pragma omp simd
    for (int k = 0; k < kWide; ++k) {
      Interval all;
      TARVO_UNROLL
      for (int i = 0; i < kSide; ++i) {
        all.low = lows[k + i] < all.low ? lows[k + i] : all.low;
        all.high = highs[k + i] > all.high ? highs[k + i] : all.high;
      }
      set(k, all);
    }
  }
};

/// The windows of kWide pixels, tap by tap, and the search for their medians.
template <int kRadius>
class Block {
 public:
  /// Whether any of the pixels moves; the others keep their flow.
  TARVO_HOST bool setRanges(const Source& source) {
    intervalsU_.setRanges<kRadius>(source.plane[0], source.pitch);
    intervalsV_.setRanges<kRadius>(source.plane[1], source.pitch);
    int any = 0;
#pragma omp simd reduction(| : any)
    for (int k = 0; k < kWide; ++k) {
      moves_[k] = (intervalsU_.at(k).moves() || intervalsV_.at(k).moves()) ? 1 : 0;
      any |= moves_[k];
    }
    return any != 0;
  }

  TARVO_HOST void gather(const Source& source, const kernels::MedianWeights& weights) {
    const long centre = kRadius * source.pitch + kRadius;
    alignas(64) float sums[kWide] = {}, rowSums[kWide];
    for (int j = 0, tap = 0; j < kSide; ++j) {
      std::fill(rowSums, rowSums + kWide, 0.0f);
      for (int i = 0; i < kSide; ++i, ++tap) {
        const long at = j * source.pitch + i;
        const float near = weights.near(i - kRadius, j - kRadius);
        const float *u = source.plane[0] + at, *v = source.plane[1] + at, *valid = source.plane[5] + at;
        const float *r = source.plane[2] + at, *ownR = source.plane[2] + centre;
        const float *g = source.plane[3] + at, *ownG = source.plane[3] + centre;
        const float *b = source.plane[4] + at, *ownB = source.plane[4] + centre;
#pragma omp simd
        for (int k = 0; k < kWide; ++k) {
          const float weight = weights.weight(r[k] - ownR[k], g[k] - ownG[k], b[k] - ownB[k], near, valid[k]);
          const float counted = weight > 0.0f ? weight : 0.0f;
          weight_[tap][k] = counted;
          rowSums[k] += counted;
          u_[tap][k] = u[k];
          v_[tap][k] = v[k];
        }
      }
#pragma omp simd
      for (int k = 0; k < kWide; ++k) sums[k] += rowSums[k];
    }
#pragma omp simd
    for (int k = 0; k < kWide; ++k) {
      half_[k] = 0.5f * sums[k];
      if (moves_[k] == 0)
        intervalsU_.low[k] = intervalsU_.high[k] = intervalsV_.low[k] = intervalsV_.high[k] = 0.0f;
    }
  }

  TARVO_HOST void search() {
    for (int step = 0; step < Interval::kMostHalvings && halve(u_, intervalsU_); ++step) {
    }
    for (int step = 0; step < Interval::kMostHalvings && halve(v_, intervalsV_); ++step) {
    }
  }

  TARVO_HOST void store(float* outU, float* outV, int count) const {
    alignas(64) float u[kWide], v[kWide];
    leastOf(u_, intervalsU_, u);
    leastOf(v_, intervalsV_, v);
    std::copy(u, u + count, outU);
    std::copy(v, v + count, outV);
  }

 private:
  static constexpr int kSide = 2 * kRadius + 1, kTaps = kSide * kSide, kOwn = kTaps / 2;
  using Taps = float[kTaps][kWide];

  /// Adds to below the weight of the values under mid, in the order of the plain kernel: a row's sum first.
  TARVO_HOST void addBelow(const Taps& taps, const float* mid, float* below) const {
    for (int j = 0; j < kSide; ++j) {
      alignas(64) float row[kWide] = {};
      for (int i = 0; i < kSide; ++i) {
        const float *value = taps[j * kSide + i], *weight = weight_[j * kSide + i];
#pragma omp simd
        for (int k = 0; k < kWide; ++k) row[k] += value[k] < mid[k] ? weight[k] : 0.0f;
      }
#pragma omp simd
      for (int k = 0; k < kWide; ++k) below[k] += row[k];
    }
  }
  /// Halves the open intervals of one component; whether any is open still.
  TARVO_HOST bool halve(const Taps& taps, Intervals& intervals) const {
    alignas(64) float mid[kWide], below[kWide] = {};
#pragma omp simd
    for (int k = 0; k < kWide; ++k) mid[k] = intervals.at(k).middle();
    addBelow(taps, mid, below);
    int open = 0;
#pragma omp simd reduction(| : open)
    for (int k = 0; k < kWide; ++k) {
      Interval interval = intervals.at(k);
      interval.halve(below[k], half_[k]);
      intervals.set(k, interval);
      open |= interval.open() ? 1 : 0;
    }
    return open != 0;
  }

  /// The least value of each window that is not below its interval, or its own of a pixel that does not move.
  TARVO_HOST void leastOf(const Taps& taps, const Intervals& intervals, float* least) const {
#pragma omp simd
    for (int k = 0; k < kWide; ++k) least[k] = intervals.high[k];
    for (const float(&value)[kWide] : taps) {
#pragma omp simd
      for (int k = 0; k < kWide; ++k) {
        least[k] = (value[k] >= intervals.low[k] && value[k] < least[k]) ? value[k] : least[k];
      }
    }
#pragma omp simd
    for (int k = 0; k < kWide; ++k) {
      least[k] = (moves_[k] == 0 || intervals.at(k).empty()) ? taps[kOwn][k] : least[k];
    }
  }

  alignas(64) Taps weight_, u_, v_;
  Intervals intervalsU_, intervalsV_;
  alignas(64) float half_[kWide];
  alignas(64) int moves_[kWide];
};

template <int kRadius>
TARVO_BAND void medianBand(Median median, int y0, int y1) {
  const long n = static_cast<long>(median.h) * median.p;
  const float* const planes[kPlanes] = {
      median.u, median.v, median.picture, median.picture + n, median.picture + 2 * n, median.valid};
  Block<kRadius> block;
  Border<kRadius> border;
  for (int y = y0; y < y1; ++y) {
    for (int x0 = 0; x0 < median.w; x0 += kWide) {
      const long at = static_cast<long>(y) * median.p + x0;
      const int count = std::min(kWide, median.w - x0);
      Source source;
      if (x0 >= kRadius && x0 + kWide + kRadius <= median.w && y >= kRadius && y + kRadius < median.h) {
        for (int k = 0; k < kPlanes; ++k) {
          source.plane[k] = planes[k] + at - kRadius * static_cast<long>(median.p) - kRadius;
        }
        source.pitch = median.p;
      } else {
        source = border.copy(median, planes, x0, y);
      }
      if (!block.setRanges(source)) {
        std::copy(median.u + at, median.u + at + count, median.outU + at);
        std::copy(median.v + at, median.v + at + count, median.outV + at);
        continue;
      }
      block.gather(source, median.weights);
      block.search();
      block.store(median.outU + at, median.outV + at, count);
    }
  }
}

template <int kRadius>
void run(const Median& median) {
  device::cpu::forBands(median.h, median.w, [&](int y0, int y1) { medianBand<kRadius>(median, y0, y1); });
}

}  // namespace

void weightedMedianOnCpu(const Median& median) {
  switch (median.radius) {
    case 1:
      return run<1>(median);
    case 2:
      return run<2>(median);
    case 3:
      return run<3>(median);
    default:
      return run<4>(median);
  }
}

}  // namespace variational
