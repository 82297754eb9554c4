#include "match/match_cpu.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "device/cpu/launch.h"
#include "match/match_codes.h"

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
constexpr unsigned kCrowded = 2;  // groups of a block from which on its squares are worth their time
constexpr int kMostKept = 512;
constexpr int kPointsPerChunk = 32;

/// A distance whose estimate exceeds this surely exceeds one with the estimate `value`.
TARVO_HOST_DEVICE float loosened(float value) {
  return value * 1.0001f + 1e-30f;
}

struct Job {
  kernels::HOGMatch_kernel m;
  float* cells;  // image B: at pixel y * w + x its 15 bins and a zero
  Codes codes;
};

/// The point that is searched.
struct Point {
  alignas(64) float cells[kCells][kLanes];
  PointCodes codes;
  Window window;
};

TARVO_HOST_DEVICE void loadPoint(Point& point, const Job& job, int ax, int ay) {
  const kernels::HOGMatch_kernel& m = job.m;
  for (int k = 0; k < kCells; ++k) {
    for (int b = 0; b < kHogBins; ++b) point.cells[k][b] = m.element(m.hogA, ax, ay, k, b);
    point.cells[k][kHogBins] = 0.0f;
    point.codes.setCell(job.codes, k, point.cells[k]);
  }
  float colour[kColours];
  for (int c = 0; c < kColours; ++c) colour[c] = m.imageA[m.plane(c) + m.at(ax, ay)];
  point.codes.setAcceptable(colour, m.energyA[m.at(ax, ay)]);
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
  const int ax, ay;
  Point point;
  Outcome outcome;
  Limit limit;
  Bounds bounds;
  float boundsOf = -1.0f;  // the limit that `bounds` belong to
  int kept = 0;
  Candidate candidates[kMostKept];
  alignas(32) unsigned char passing[kBandRows * kPaddedColumns];
  unsigned listed = 0;
  unsigned places[kBandRows * kPaddedColumns + kGroup];  // in `passing`

  TARVO_HOST_DEVICE Search(const Job& theJob, int pointX, int pointY) : job(theJob), ax(pointX), ay(pointY) {
    loadPoint(point, job, ax, ay);
  }

  TARVO_HOST_DEVICE const float* cellAt(int x, int y, int k) const {
    const long pixel = static_cast<long>(y + cellRow(k)) * job.m.w + x + cellColumn(k);
    return job.cells + pixel * kLanes;
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
    for (int row = std::max(window.y0, y - 1); row <= std::min(window.y1, y + 1); ++row) {
      for (int column = std::max(window.x0, x - 1); column <= std::min(window.x1, x + 1); ++column) {
        if (job.m.acceptable(ax, ay, column, row)) limit.see(estimate(column, row));
      }
    }
  }

  /// The candidates of columns x0 ... x1 and rows y ... y + rows - 1 that the byte tests leave. Lists instead
  /// of branches: what passes is hard to predict.
  TARVO_HOST_DEVICE void listBand(int x0, int x1, int y, unsigned rows) {
    const Codes codes = job.codes;
    const long plane = codes.w, row = plane * Codes::kPlanes;
    const auto count = static_cast<unsigned>(x1 + 1 - x0);
    const unsigned padded = (count + kBlock - 1) / kBlock * kBlock;
    unsigned blocks[kBandRows * kPaddedColumns / kBlock], groups[kBandRows * kPaddedColumns / kGroup];
    unsigned blockCount = 0, groupCount = 0, found = 0;
    const unsigned char* first = codes.planeRow(0, y) + x0;
    for (unsigned r = 0; r < rows; ++r) {
      unsigned char* rowPassing = passing + r * kPaddedColumns;
      testColumns(first + r * row, plane, point.codes, codes.open[y + static_cast<int>(r)] != 0, padded, rowPassing);
      for (unsigned i = count; i < padded; ++i) rowPassing[i] = 0;
      for (unsigned i = 0; i < padded; i += kBlock) {
        std::uint64_t words[kBlock / sizeof(std::uint64_t)];
        std::memcpy(words, rowPassing + i, sizeof words);
        blocks[blockCount] = r * kPaddedColumns + i;
        blockCount += ((words[0] | words[1]) | (words[2] | words[3])) != 0 ? 1 : 0;
      }
    }
    const unsigned char* corner = codes.planeRow(kColours + 1, y - kSpacing) + x0 - kSpacing;
    for (unsigned i = 0; i < blockCount; ++i) {
      const unsigned place = blocks[i], before = groupCount;
      const unsigned char* cells = corner + place / kPaddedColumns * row + place % kPaddedColumns;
      const auto listGroups = [&] {
        groupCount = before;
        TARVO_UNROLL
        for (unsigned g = place; g < place + kBlock; g += kGroup) {
          std::uint64_t group;
          std::memcpy(&group, passing + g, sizeof group);
          groups[groupCount] = g;
          groupCount += group != 0 ? 1 : 0;
        }
      };
      boundBlock(cells, plane, kSpacing * row, bounds, passing + place);
      listGroups();
      if (groupCount - before < kCrowded || !bounds.squares) continue;
      boundSquares(cells, plane, kSpacing * row, bounds, passing + place);
      listGroups();
    }
    for (unsigned i = 0; i < groupCount; ++i) {
      const unsigned group = groups[i];
      TARVO_UNROLL
      for (unsigned lane = 0; lane < kGroup; ++lane) {
        places[found] = group + lane;
        found += passing[group + lane] & 1;
      }
    }
    listed = found;
  }

  /// Keeps what the fine codes leave.
  TARVO_HOST_DEVICE void screenBand(int x0, int y) {
    const std::uint16_t* row = job.codes.fineRow(y - kSpacing);
    const long length = Codes::fineLength(job.codes.w);
    const int* offsets = job.codes.cellOffsets + x0 - kSpacing;
    const unsigned most = bounds.mostFine;
    const unsigned count = listed;
    unsigned left = 0;
    Shorts own[3];
    std::memcpy(own, point.codes.fine, sizeof own);
    unsigned* to = places;
    for (unsigned i = 0; i < count; ++i) {
      const unsigned place = to[i];
      const std::uint16_t* cells = row + place / kPaddedColumns * length + offsets[place % kPaddedColumns];
      to[left] = place;
      left += fineDistance(cells, kSpacing * length, own) <= most ? 1 : 0;
    }
    listed = left;
  }

  TARVO_HOST_DEVICE void searchBand(int x0, int x1, int y, unsigned rows) {
    if (limit.most != boundsOf) {
      boundsOf = limit.most;
      bounds.set(job.codes, point.codes, boundsOf);
    }
    listBand(x0, x1, y, rows);
    screenBand(x0, y);
    for (unsigned i = 0; i < listed; ++i) {
      const int column = x0 + static_cast<int>(places[i] % kPaddedColumns);
      const int row = y + static_cast<int>(places[i] / kPaddedColumns);
      const float value = estimate(column, row);
      if (!(value <= limit.most) || !job.m.acceptable(ax, ay, column, row)) continue;
      limit.see(value);
      keep(value, column, row);
    }
  }

  TARVO_HOST_DEVICE void searchWindow() {
    const Window& window = point.window;
    int x1 = window.x1;
    for (int y = window.y0; y <= window.y1; y += kBandRows) {
      if (outcome.second == 0.0f) x1 = std::min(x1, outcome.x - 1);  // only an earlier column matters now
      if (window.x0 > x1) break;
      searchBand(window.x0, x1, y, static_cast<unsigned>(std::min(kBandRows, window.y1 + 1 - y)));
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
    Search search(job, ax, ay);
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

/// Rows y0 ... y1 - 1 of image B: histograms from planes to pixels, and codes.
TARVO_BAND void collectBand(Job job, int y0, int y1) {
  const kernels::HOGMatch_kernel& m = job.m;
  for (int y = y0; y < y1; ++y) {
    float* row = job.cells + static_cast<long>(y) * m.w * kLanes;
    for (int x = 0; x < m.w; ++x) row[x * kLanes + kHogBins] = 0.0f;
    for (int b = 0; b < kHogBins; ++b) {
      const float* bins = m.hogB + m.plane(b) + m.at(0, y);
      for (int x = 0; x < m.w; ++x) row[x * kLanes + b] = bins[x];
    }
    codeRow(job.codes, m, y);
  }
}

/// Mean energy of some pixels of image B, for the scale of the codes: any value is right, not every one fast.
float typicalEnergy(const kernels::HOGMatch_kernel& m) {
  constexpr int kStep = 7;
  float sum = 0.0f;
  int count = 0;
  for (int y = 0; y < m.h; y += kStep) {
    for (int x = 0; x < m.w; x += kStep) {
      const float energy = m.energyB[m.at(x, y)];
      if (!(energy > 1e-9f && energy < 1e9f)) continue;
      sum += energy;
      ++count;
    }
  }
  return count != 0 ? sum / static_cast<float>(count) : 1.0f;
}

/// Parts of the scratch, in floats.
struct Layout {
  std::size_t cells, offsets, fine, planes, open;

  Layout(int h, int w) {
    const auto rows = static_cast<std::size_t>(h), pixels = rows * static_cast<std::size_t>(w);
    const auto floats = [](std::size_t bytes) { return (bytes + Codes::kSlack) / sizeof(float) + 1; };
    cells = pixels * kLanes;
    offsets = static_cast<std::size_t>(w);
    fine = floats(rows * static_cast<std::size_t>(Codes::fineLength(w)) * sizeof(std::uint16_t));
    planes = floats(pixels * Codes::kPlanes);
    open = floats(rows);
  }
};

Job jobOf(const kernels::HOGMatch_kernel& m, float* scratch) {
  const Layout layout(m.h, m.w);
  const float energy = typicalEnergy(m);
  float* offsets = scratch + layout.cells;
  float* fine = offsets + layout.offsets;
  float* planes = fine + layout.fine;
  float* open = planes + layout.planes;
  const Codes codes{m.h,
                    m.w,
                    kCoarsePerEnergy / energy,
                    kFinePerEnergy / energy,
                    reinterpret_cast<unsigned char*>(planes),
                    reinterpret_cast<unsigned char*>(open),
                    reinterpret_cast<std::uint16_t*>(fine),
                    reinterpret_cast<int*>(offsets)};
  for (int x = 0; x < m.w; ++x) codes.cellOffsets[x] = static_cast<int>(codes.fineCell(x));
  return {m, scratch, codes};
}

}  // namespace

std::size_t cpuMatchScratch(int h, int w) {
  const Layout layout(h, w);
  return layout.cells + layout.offsets + layout.fine + layout.planes + layout.open;
}

void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch) {
  const Job job = jobOf(search, scratch);
  device::cpu::forBands(search.h, search.w, [&](int y0, int y1) { collectBand(job, y0, y1); });
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
