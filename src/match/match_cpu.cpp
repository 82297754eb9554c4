#include "match/match_cpu.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "device/cpu/launch.h"

// The search of a point on the CPU, with exactly the results of kernels::HOGMatch_kernel.
//
// Row by row of the window, all in order:
//  1. energy and colour test of the whole row side by side; in blocks where something passes also a bound: by
//     Cauchy and Schwarz the squared differences of sums over five bins of the corner cells add up to at most
//     five distances; the passing columns are listed;
//  2. estimate of each one's distance, cell by cell with the bins side by side, given up once it is too
//     large: first the centre cell, then the others;
//  3. what is left at the end of the window, a few candidates, is measured in the fixed order.
//
// Why this is exact. With m the smallest distance, the second distance T is m if some column reaches m twice,
// else the smallest distance greater than m: both are values of the set of all candidates, whatever their
// order. A candidate with a distance greater than T changes neither. Distance and estimate add the same 135
// rounded squares in different orders, so they differ by less than a factor of 1 + 1e-5 and, where squares
// underflow, 1e-40: a candidate whose estimate exceeds loosened(b), b the estimate of any candidate surely
// farther than m, is farther than T. An estimate of 0 is a distance of 0.

namespace match {
namespace {

constexpr int kLanes = 16;  // a cell's bins and one zero
constexpr int kGroup = 8;   // bytes looked at together, candidates measured together
constexpr int kPaddedColumns = (kMostColumns + kGroup - 1) / kGroup * kGroup;
constexpr int kParts = 3;  // sums of a cell, over five bins each
constexpr int kBinsOfPart = kHogBins / kParts;
constexpr int kBlock = 32;  // columns tested together
constexpr int kMostKept = 512;
constexpr int kPointsPerChunk = 32;

/// A distance whose estimate exceeds this surely exceeds one with the estimate `value`.
TARVO_HOST_DEVICE float loosened(float value) {
  return value * 1.0001f + 1e-30f;
}

struct Job {
  kernels::HOGMatch_kernel m;
  const float* cells;  // image B: at pixel y * w + x its 15 bins and a zero
  const float* sums;   // kParts dense planes: sums of absolute values
};

/// The point that is searched.
struct Point {
  alignas(64) float cells[kCells][kLanes];
  float sums[kCells][kParts];
  float sumsNorm;
  float colour[kColours];
  float leastEnergy, mostEnergy;  // of acceptable candidates
  Window window;
};

/// The limits that make comparisons in single precision equal to those of doubled energies in double.
TARVO_HOST_DEVICE void setEnergyLimits(Point& point, float energy) {
  constexpr float kMost = std::numeric_limits<float>::max();
  point.mostEnergy = energy <= kMost ? std::min(2.0f * energy, kMost) : energy;
  float half = 0.5f * energy;
  if (static_cast<double>(half) < 0.5 * static_cast<double>(energy)) {
    half += std::numeric_limits<float>::denorm_min();  // a halved denormal was rounded down
  }
  point.leastEnergy = half;
}

TARVO_HOST_DEVICE void loadPoint(Point& point, const kernels::HOGMatch_kernel& m, int ax, int ay) {
  std::memset(point.sums, 0, sizeof point.sums);
  point.sumsNorm = 0.0f;
  for (int k = 0; k < kCells; ++k) {
    for (int b = 0; b < kHogBins; ++b) {
      point.cells[k][b] = m.element(m.hogA, ax, ay, k, b);
      point.sums[k][b / kBinsOfPart] += std::fabs(point.cells[k][b]);
    }
    point.cells[k][kHogBins] = 0.0f;
    for (float sum : point.sums[k]) point.sumsNorm += sum;
  }
  for (int c = 0; c < kColours; ++c) point.colour[c] = m.imageA[m.plane(c) + m.at(ax, ay)];
  setEnergyLimits(point, m.energyA[m.at(ax, ay)]);
  point.window = windowAround(ax, ay, m.h, m.w);
}

/// The result so far, of candidates in any order.
struct Outcome {
  float best = kRejected, second = kRejected;
  int x = 0, y = 0;
  std::uint64_t nearest[(kMostColumns + 63) / 64] = {};  // columns that reach `best`

  TARVO_HOST_DEVICE void add(float d, int newX, int newY, int x0) {
    std::uint64_t& word = nearest[(newX - x0) / 64];
    const std::uint64_t bit = std::uint64_t{1} << ((newX - x0) % 64);
    if (d < best) {
      second = best;
      best = d;
      x = newX, y = newY;
      std::memset(nearest, 0, sizeof nearest);
      word = bit;
    } else if (d == best && best < kRejected) {
      if ((word & bit) != 0) second = best;
      if (newX < x || (newX == x && newY < y)) x = newX, y = newY;
      word |= bit;
    } else if (d < second) {
      second = d;
    }
  }
};

/// Largest estimate that still matters, from the estimates seen so far; each candidate may be seen again.
struct Limit {
  float least = kRejected;
  float most = loosened(kRejected);

  TARVO_HOST_DEVICE void see(float estimate) {
    if (estimate < least) {
      if (least > loosened(estimate)) most = std::min(most, loosened(least));
      least = estimate;
    } else if (estimate > loosened(least)) {
      most = std::min(most, loosened(estimate));
    }
  }
};

struct Candidate {
  float estimate;
  int x, y;
};

/// Eight floats, which the compiler keeps in the registers of the instruction set.
using Vector = float __attribute__((vector_size(32)));

/// Sums of squared differences of cells, one for each bin.
struct Squares {
  Vector low = {}, high = {};

  TARVO_HOST_DEVICE void addCell(const float* a, const float* b) {
    Vector a0, a1, b0, b1;
    std::memcpy(&a0, a, sizeof a0);
    std::memcpy(&a1, a + kLanes / 2, sizeof a1);
    std::memcpy(&b0, b, sizeof b0);
    std::memcpy(&b1, b + kLanes / 2, sizeof b1);
    a0 -= b0;
    a1 -= b1;
    low += a0 * a0;
    high += a1 * a1;
  }
  TARVO_HOST_DEVICE float sum() const {
    const Vector s = low + high;
    return ((s[0] + s[4]) + (s[2] + s[6])) + ((s[1] + s[5]) + (s[3] + s[7]));
  }
};

/// State of one point's search.
struct Search {
  const Job& job;
  Point point;
  Outcome outcome;
  Limit limit;
  int kept = 0;
  Candidate candidates[kMostKept];
  unsigned char passing[kPaddedColumns];
  int listed = 0;
  int columns[kMostColumns];

  TARVO_HOST_DEVICE explicit Search(const Job& theJob) : job(theJob) {}

  TARVO_HOST_DEVICE const float* cellAt(int x, int y, int k) const {
    const long pixel = static_cast<long>(y + cellRow(k)) * job.m.w + x + cellColumn(k);
    return job.cells + pixel * kLanes;
  }

  /// Largest sum of squared differences of sums that the limit allows. The sums are known to 1e-6 of
  /// themselves, so their differences to 1e-5 of the point's sums and of the differences.
  TARVO_HOST_DEVICE float mostOfSums() const {
    const float root = std::sqrt(static_cast<float>(kBinsOfPart) * limit.most) + 1e-5f * point.sumsNorm;
    return root * root * 1.001f;
  }

  /// passing[i] for `count` columns from `first` of the window on: 1 where no test rejects.
  TARVO_HOST_DEVICE void testColumns(int first, int count, int y) {
    const kernels::HOGMatch_kernel& m = job.m;
    const long start = m.at(point.window.x0 + first, y);
    const float* energy = m.energyB + start;
    const float* red = m.imageB + start;
    const float* green = red + m.plane(1);
    const float* blue = red + m.plane(2);
    const float r = point.colour[0], g = point.colour[1], b = point.colour[2];
    const float least = point.leastEnergy, most = point.mostEnergy;
    unsigned char* out = passing + first;
#pragma omp simd
    for (int i = 0; i < count; ++i) {
      const float d0 = r - red[i], d1 = g - green[i], d2 = b - blue[i];
      const float colours = d0 * d0 + d1 * d1 + d2 * d2;
      const bool rejected = (energy[i] > most) | (energy[i] < least) | (colours > kColourThreshold);
      out[i] = rejected ? 0 : 1;
    }
  }

  /// Clears passing[i] of the block from `first` of the window on where the bound exceeds what matters.
  TARVO_HOST_DEVICE void boundBlock(int first, int y, float mostSums) {
    std::uint64_t groups[kBlock / kGroup];
    std::memcpy(groups, passing + first, sizeof groups);
    if ((groups[0] | groups[1] | groups[2] | groups[3]) == 0) return;
    const long plane = static_cast<long>(job.m.h) * job.m.w;
    const long row = static_cast<long>(kSpacing) * job.m.w;
    const float* above = job.sums + static_cast<long>(y) * job.m.w + point.window.x0 + first - row;
    const float* below = above + 2 * row;
    const auto& own = point.sums;
    float squares[kBlock];
#pragma omp simd
    for (int i = 0; i < kBlock; ++i) {
      float sum = 0.0f;
      for (int part = 0; part < kParts; ++part) {
        const float d0 = own[0][part] - above[part * plane + i - kSpacing];
        const float d2 = own[2][part] - above[part * plane + i + kSpacing];
        const float d6 = own[6][part] - below[part * plane + i - kSpacing];
        const float d8 = own[8][part] - below[part * plane + i + kSpacing];
        sum += (d0 * d0 + d2 * d2) + (d6 * d6 + d8 * d8);
      }
      squares[i] = sum;
    }
    unsigned char* out = passing + first;
#pragma omp simd
    for (int i = 0; i < kBlock; ++i) {
      out[i] = static_cast<unsigned char>(squares[i] > mostSums ? 0 : out[i]);
    }
  }

  /// passing[x - window.x0] for columns x0 ... x1 of row y, zeros around them up to whole groups.
  TARVO_HOST_DEVICE void testRow(int x0, int x1, int y) {
    const int first = x0 - point.window.x0;
    const int end = x1 + 1 - point.window.x0;
    for (int i = first / kGroup * kGroup; i < first; ++i) passing[i] = 0;
    if (end - first < kBlock) {
      testColumns(first, end - first, y);
    } else {
      const float mostSums = mostOfSums();
      for (int i = first; i < end; i += kBlock) {
        const int start = std::min(i, end - kBlock);
        testColumns(start, kBlock, y);
        boundBlock(start, y, mostSums);
      }
    }
    for (int i = end; i % kGroup != 0; ++i) passing[i] = 0;
  }

  /// Lists the columns among x0 ... x1 that pass the tests in row y.
  TARVO_HOST_DEVICE void listRow(int x0, int x1, int y) {
    testRow(x0, x1, y);
    listed = 0;
    const int end = x1 + 1 - point.window.x0;
    for (int i = (x0 - point.window.x0) / kGroup * kGroup; i < end; i += kGroup) {
      std::uint64_t group;
      std::memcpy(&group, passing + i, sizeof group);
      for (; group != 0; group &= group - 1) {
        columns[listed++] = point.window.x0 + i + __builtin_ctzll(group) / 8;
      }
    }
  }

  /// Keeps those listed columns whose centre cell alone does not exceed the limit.
  TARVO_HOST_DEVICE void screenRow(int y) {
    int left = 0;
    for (int i = 0; i < listed; ++i) {
      const int x = columns[i];
      Squares squares;
      squares.addCell(point.cells[kCentreCell], cellAt(x, y, kCentreCell));
      columns[left] = x;
      left += squares.sum() <= limit.most ? 1 : 0;
    }
    listed = left;
  }

  /// Estimate of the distance of (x, y), or of a part of it that exceeds the limit.
  TARVO_HOST_DEVICE float estimate(int x, int y) const {
    const float* centre = cellAt(x, y, kCentreCell);
    const long row = static_cast<long>(kSpacing) * kLanes * job.m.w;
    constexpr long kColumn = static_cast<long>(kSpacing) * kLanes;
    Squares squares;
    squares.addCell(point.cells[0], centre - row - kColumn);
    squares.addCell(point.cells[8], centre + row + kColumn);
    squares.addCell(point.cells[2], centre - row + kColumn);
    squares.addCell(point.cells[6], centre + row - kColumn);
    const float part = squares.sum();
    if (part > limit.most) return part;
    squares.addCell(point.cells[1], centre - row);
    squares.addCell(point.cells[3], centre - kColumn);
    squares.addCell(point.cells[4], centre);
    squares.addCell(point.cells[5], centre + kColumn);
    squares.addCell(point.cells[7], centre + row);
    return squares.sum();
  }

  TARVO_HOST_DEVICE void keep(float value, int x, int y) {
    if (value == 0.0f) {
      outcome.add(0.0f, x, y, point.window.x0);
      return;
    }
    candidates[kept++] = {value, x, y};
    if (kept == kMostKept) measure();
  }

  /// Distances of kGroup candidates, every one in the fixed order.
  TARVO_HOST_DEVICE void distances(const Candidate* group, float* sums) const {
    const float* cells[kCells][kGroup];
    for (int k = 0; k < kCells; ++k) {
      for (int c = 0; c < kGroup; ++c) cells[k][c] = cellAt(group[c].x, group[c].y, k);
    }
    for (int c = 0; c < kGroup; ++c) sums[c] = 0.0f;
    for (int b = 0; b < kHogBins; ++b) {
      for (int k = 0; k < kCells; ++k) {
        for (int c = 0; c < kGroup; ++c) {
          const float d = point.cells[k][b] - cells[k][c][b];
          sums[c] += d * d;
        }
      }
    }
  }

  /// Measures the kept candidates that still matter; none is kept afterwards.
  TARVO_HOST_DEVICE void measure() {
    int left = 0;
    for (int i = 0; i < kept; ++i) {
      if (candidates[i].estimate <= limit.most) candidates[left++] = candidates[i];
    }
    kept = 0;
    for (int start = 0; start < left; start += kGroup) {
      Candidate group[kGroup];
      const int n = std::min(kGroup, left - start);
      for (int c = 0; c < kGroup; ++c) group[c] = candidates[start + std::min(c, n - 1)];
      float sums[kGroup];
      distances(group, sums);
      for (int c = 0; c < n; ++c) outcome.add(sums[c], group[c].x, group[c].y, point.window.x0);
    }
    limit.most = std::min(limit.most, loosened(outcome.second));
  }

  /// Tightens the limit with the candidates around (x, y), where the match is likely.
  TARVO_HOST_DEVICE void lookAround(int x, int y) {
    const Window& window = point.window;
    const int x0 = std::max(window.x0, x - 1), x1 = std::min(window.x1, x + 1);
    if (x0 > x1) return;
    for (int row = std::max(window.y0, y - 1); row <= std::min(window.y1, y + 1); ++row) {
      listRow(x0, x1, row);
      for (int i = 0; i < listed; ++i) limit.see(estimate(columns[i], row));
    }
  }

  TARVO_HOST_DEVICE void searchWindow() {
    const Window& window = point.window;
    int x1 = window.x1;
    for (int y = window.y0; y <= window.y1; ++y) {
      if (outcome.second == 0.0f) x1 = std::min(x1, outcome.x - 1);  // only an earlier column matters now
      if (window.x0 > x1) break;
      listRow(window.x0, x1, y);
      screenRow(y);
      for (int i = 0; i < listed; ++i) {
        const float value = estimate(columns[i], y);
        if (!(value <= limit.most)) continue;
        limit.see(value);
        keep(value, columns[i], y);
      }
    }
    measure();
  }
};

/// Points k0 ... k1 - 1, in order; neighbours mostly move alike.
TARVO_BAND void matchBand(Job job, int k0, int k1) {
  const kernels::HOGMatch_kernel& m = job.m;
  int u = 0, v = 0;
  for (int k = k0; k < k1; ++k) {
    const int ax = m.pointX[k];
    const int ay = m.pointY[k];
    if (!m.searched(ax, ay)) continue;
    Search search(job);
    loadPoint(search.point, m, ax, ay);
    search.lookAround(ax + u, ay + v);
    if (u != 0 || v != 0) search.lookAround(ax, ay);
    search.searchWindow();
    const Outcome& outcome = search.outcome;
    m.matchX[k] = outcome.x;
    m.matchY[k] = outcome.y;
    m.bestDistance[k] = outcome.best;
    m.secondDistance[k] = outcome.second;
    if (outcome.best < kRejected) u = outcome.x - ax, v = outcome.y - ay;
  }
}

/// Rows y0 ... y1 - 1 of the histograms of image B, from planes to pixels, with their sums.
TARVO_BAND void collectBand(kernels::HOGMatch_kernel m, float* cells, float* sums, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    float* row = cells + static_cast<long>(y) * m.w * kLanes;
    for (int x = 0; x < m.w; ++x) row[x * kLanes + kHogBins] = 0.0f;
    for (int part = 0; part < kParts; ++part) {
      float* sumsRow = sums + (static_cast<long>(part) * m.h + y) * m.w;
      std::fill(sumsRow, sumsRow + m.w, 0.0f);
      for (int b = part * kBinsOfPart; b < (part + 1) * kBinsOfPart; ++b) {
        const float* bins = m.hogB + m.plane(b) + m.at(0, y);
        for (int x = 0; x < m.w; ++x) {
          row[x * kLanes + b] = bins[x];
          sumsRow[x] += std::fabs(bins[x]);
        }
      }
    }
  }
}

}  // namespace

std::size_t cpuMatchScratch(int h, int w) {
  return static_cast<std::size_t>(h) * static_cast<std::size_t>(w) * (kLanes + kParts);
}

void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch) {
  float* sums = scratch + static_cast<long>(search.h) * search.w * kLanes;
  device::cpu::forBands(search.h, search.w,
                        [&](int y0, int y1) { collectBand(search, scratch, sums, y0, y1); });
  const Job job{search, scratch, sums};
  const int chunks = (search.outW + kPointsPerChunk - 1) / kPointsPerChunk;
  device::cpu::runChunks(
      chunks,
      [](const void* opaque, int chunk) {
        const Job& j = *static_cast<const Job*>(opaque);
        const int k0 = chunk * kPointsPerChunk;
        matchBand(j, k0, std::min(j.m.outW, k0 + kPointsPerChunk));
      },
      &job);
}

}  // namespace match
