#include "variational/pyramid/match_levels.h"

#include <tarvo/elementwise.h>
#include <tarvo/pyramid.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>

#include "device/cpu/band.h"
#include "device/cpu/form.h"
#include "device/cpu/team.h"
#include "variational/pyramid/pyramid_kernels.h"

namespace variational {

/// One level on the CPU device. The target columns that source column i belongs to, with its lengths in them,
/// are shares[reach[i]] ... shares[reach[i + 1] - 1].
struct MatchAverage {
  struct Share {
    int column;
    float start, end;
  };
  static constexpr int kSums = 4;  // of u, v, weight, and the weights' areas

  const MatchLevels::Match* matches;
  const int* rows;
  const Share* shares;
  const int* reach;
  int inH;
  float* out[kSums - 1];
  int outH, outW, outP;
  float scale;

  /// Adds the matches of source row j; areas and order as in downsample_weighted_kernel.
  TARVO_HOST_DEVICE void addRow(int j, float rowStart, float rowEnd, float* sums) const {
    for (int m = rows[j]; m < rows[j + 1]; ++m) {
      const MatchLevels::Match& match = matches[m];
      for (int s = reach[match.x]; s < reach[match.x + 1]; ++s) {
        const Share& share = shares[s];
        const float area = rowStart * share.start * rowEnd * share.end;
        if (!(area > 0.0f)) continue;
        float* at = sums + static_cast<std::ptrdiff_t>(share.column) * kSums;
        const float weight = match.weight * area;
        at[0] = fmaf(weight, match.u, at[0]);
        at[1] = fmaf(weight, match.v, at[1]);
        at[2] = fmaf(weight, match.weight, at[2]);
        at[3] += weight;
      }
    }
  }
  /// Target row y; sums is scratch of kSums floats a column.
  TARVO_HOST_DEVICE void averageRow(int y, float* sums) const {
    const kernels::Footprint footprint(y, static_cast<float>(inH) / static_cast<float>(outH), inH);
    std::fill(sums, sums + static_cast<std::ptrdiff_t>(outW) * kSums, 0.0f);
    for (int j = footprint.first; j <= footprint.last; ++j) {
      addRow(j, footprint.start(j), footprint.end(j), sums);
    }
    const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(y) * outP;
    float *u = out[0] + row, *v = out[1] + row, *weight = out[2] + row;
#pragma omp simd
    for (int x = 0; x < outW; ++x) {
      const float* at = sums + static_cast<std::ptrdiff_t>(x) * kSums;
      u[x] = at[0] / at[3] * scale;
      v[x] = at[1] / at[3] * scale;
      weight[x] = at[2] / at[3];
    }
  }
};

namespace {

TARVO_BAND void averageBand(MatchAverage average, float* sums, int y0, int y1) {
  for (int y = y0; y < y1; ++y) average.averageRow(y, sums);
}

/// Calls visit(i, x, start, end) for every sample i of every target column x, in order.
template <class Visit>
void forSamples(int inW, int outW, const Visit& visit) {
  const float sx = static_cast<float>(inW) / static_cast<float>(outW);
  for (int x = 0; x < outW; ++x) {
    const kernels::Footprint columns(x, sx, inW);
    for (int i = columns.first; i <= columns.last; ++i) visit(i, x, columns.start(i), columns.end(i));
  }
}

}  // namespace

void MatchLevels::listMatches() {
  for (int y = 0; y < h_; ++y) {
    rows_.push_back(static_cast<int>(matches_.size()));
    const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(y) * p_;
    for (int x = 0; x < w_; ++x) {
      const float weight = field_.weight[row + x];
      if (weight > 0.0f) matches_.push_back({x, field_.u[row + x], field_.v[row + x], weight});
    }
  }
  rows_.push_back(static_cast<int>(matches_.size()));
}

void MatchLevels::build(float* u, float* v, float* weight, int outH, int outW, int outP, float scale) {
  if (device::cpu::runs([&] { buildOnCpu(u, v, weight, outH, outW, outP, scale); })) return;
  const auto shrink = [&](const float* plane, float* out) {
    downsample(plane, h_, w_, p_, out, outH, outW, outP, field_.weight);
  };
  shrink(field_.u, u);
  Scale_kernel(u, outH, outW, outP, scale);
  shrink(field_.v, v);
  Scale_kernel(v, outH, outW, outP, scale);
  shrink(field_.weight, weight);
}

void MatchLevels::buildOnCpu(float* u, float* v, float* weight, int outH, int outW, int outP, float scale) {
  if (rows_.empty()) listMatches();
  // The shares of a source column side by side, in the order of the target columns.
  std::vector<int> reach(static_cast<std::size_t>(w_) + 1, 0);
  forSamples(w_, outW, [&](int i, int, float, float) { ++reach[static_cast<std::size_t>(i) + 1]; });
  std::partial_sum(reach.begin(), reach.end(), reach.begin());
  std::vector<int> next(reach);
  std::vector<MatchAverage::Share> shares(static_cast<std::size_t>(reach.back()));
  forSamples(w_, outW, [&](int i, int x, float start, float end) {
    shares[static_cast<std::size_t>(next[static_cast<std::size_t>(i)]++)] = {x, start, end};
  });
  const MatchAverage average{matches_.data(), rows_.data(), shares.data(), reach.data(), h_,
                             {u, v, weight},  outH,         outW,          outP,         scale};
  // A match costs about as much as eight target pixels: a row counts with its share of them.
  const int share = outW + static_cast<int>(8 * matches_.size() / static_cast<std::size_t>(outH));
  // Scratch of a row for every band, since a band must not throw.
  const int rows = device::cpu::rowsPerChunk(outH, share);
  const std::ptrdiff_t scratch = static_cast<std::ptrdiff_t>(outW) * MatchAverage::kSums;
  std::vector<float> sums(static_cast<std::size_t>((outH + rows - 1) / rows * scratch));
  device::cpu::forBandsOf(
      rows, outH, [&](int y0, int y1) { averageBand(average, sums.data() + y0 / rows * scratch, y0, y1); });
}

void averageMatches(const MatchField& field, int h, int w, int p, float* u, float* v, float* weight, int outH,
                    int outW, int outP, float scale) {
  MatchLevels(field, h, w, p).build(u, v, weight, outH, outW, outP, scale);
}

}  // namespace variational
