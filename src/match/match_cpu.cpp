#include "match/match_cpu.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "device/cpu/launch.h"
#include "match/match_codes.h"
#include "match/match_outcome.h"

// The search of a point on the CPU, with exactly the results of kernels::HOGMatch_kernel.
//
// Some rows of the window at a time:
//  1. tests of whole rows in bytes (match_codes.h), each for what the one before has left: colours and
//  energy;
//     sums over parts of the corner cells; where many pass, the squares of these. The rest is listed;
//  2. one candidate after the other: distance of its codes; estimate of the distance, cell by cell with the
//     bins side by side, given up once it is too large; the energy and colour test itself;
//  3. what is left at the end of the window, a few candidates, is measured in the fixed order.
//
// Why this is exact. With m the smallest distance, the second distance T is m if some column reaches m twice,
// else the smallest distance greater than m: both are values of the set of all candidates, whatever their
// order. A candidate with a distance greater than T changes neither. Distance and estimate add the same 135
// rounded squares in different orders, so they differ by less than a factor of 1 + 1e-5 and, where squares
// underflow, 1e-40: a candidate whose estimate exceeds loosened(b), b the estimate of any acceptable
// candidate surely farther than m, is farther than T. An estimate of 0 is a distance of 0. The tests in bytes
// leave every acceptable candidate whose estimate does not exceed the limit that they were set for; limits
// only fall.

namespace match {
namespace {

constexpr int kLanes = 16;        // a cell's bins and one zero
constexpr int kGroup = 8;         // bytes looked at together, candidates measured together
constexpr unsigned kCrowded = 2;  // groups of a block from which on its squares are worth their time
constexpr int kBandRows = 8;
constexpr unsigned kPlaces = kBandRows * kPaddedColumns;
constexpr int kMostKept = 512;
constexpr int kPointsPerChunk = 32;

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

/// Rows of the window that are tested together.
struct Band {
  int x0, y;  // upper left candidate
  unsigned columns, rows;
};

/// Places in Search::passing. Lists instead of branches: what passes is hard to predict. A list has room for
/// one more, since the next is written before it is known whether it counts.
struct List {
  unsigned* places;
  unsigned count;
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
  alignas(32) unsigned char passing[kPlaces];  // of a band: row after row, kPaddedColumns each
  unsigned places[kPlaces + 1];

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

  /// Blocks of the band where colours and energy pass.
  TARVO_HOST_DEVICE List testBand(const Band& band, unsigned* blocks) {
    const Codes& codes = job.codes;
    const unsigned padded = (band.columns + kBlock - 1) / kBlock * kBlock;
    unsigned count = 0;
    for (unsigned r = 0; r < band.rows; ++r) {
      unsigned char* row = passing + r * kPaddedColumns;
      const int y = band.y + static_cast<int>(r);
      testColumns(codes.planeRow(0, y) + band.x0, codes.w, point.codes, codes.open[y] != 0, padded, row);
      for (unsigned i = band.columns; i < padded; ++i) row[i] = 0;
      for (unsigned i = 0; i < padded; i += kBlock) {
        std::uint64_t words[kBlock / kGroup];
        std::memcpy(words, row + i, sizeof words);
        blocks[count] = r * kPaddedColumns + i;
        count += ((words[0] | words[1]) | (words[2] | words[3])) != 0 ? 1 : 0;
      }
    }
    return {blocks, count};
  }

  /// Lists the groups of a block where something passes; returns how many the list now has.
  TARVO_HOST_DEVICE unsigned listGroups(unsigned block, unsigned* groups, unsigned count) const {
    TARVO_UNROLL
    for (unsigned g = block; g < block + kBlock; g += kGroup) {
      std::uint64_t group;
      std::memcpy(&group, passing + g, sizeof group);
      groups[count] = g;
      count += group != 0 ? 1 : 0;
    }
    return count;
  }

  /// Groups of these blocks where the coarse sums pass.
  TARVO_HOST_DEVICE List boundBand(const Band& band, const List& blocks, unsigned* groups) {
    const long plane = job.codes.w, row = plane * Codes::kPlanes;
    const unsigned char* first = job.codes.planeRow(kColours + 1, band.y - kSpacing) + band.x0 - kSpacing;
    unsigned count = 0;
    for (unsigned i = 0; i < blocks.count; ++i) {
      const unsigned block = blocks.places[i];
      const unsigned char* cells = first + block / kPaddedColumns * row + block % kPaddedColumns;
      boundBlock(cells, plane, kSpacing * row, bounds, passing + block);
      unsigned after = listGroups(block, groups, count);
      if (after - count >= kCrowded && bounds.squares) {
        boundSquares(cells, plane, kSpacing * row, bounds, passing + block);
        after = listGroups(block, groups, count);
      }
      count = after;
    }
    return {groups, count};
  }

  /// What passes in these groups.
  TARVO_HOST_DEVICE List listBand(const List& groups) {
    unsigned count = 0;
    for (unsigned i = 0; i < groups.count; ++i) {
      const unsigned group = groups.places[i];
      TARVO_UNROLL
      for (unsigned place = group; place < group + kGroup; ++place) {
        places[count] = place;
        count += passing[place] & 1;
      }
    }
    return {places, count};
  }

  /// Those of the list whose fine codes pass, in its place.
  TARVO_HOST_DEVICE List screenBand(const Band& band, const List& list) const {
    const std::uint16_t* first = job.codes.fineRow(band.y - kSpacing);
    const long row = Codes::fineLength(job.codes.w);
    const int* cells = job.codes.cellOffsets + band.x0 - kSpacing;
    const unsigned most = bounds.mostFine;
    Shorts own[3];
    std::memcpy(own, point.codes.fine, sizeof own);
    unsigned left = 0;
    for (unsigned i = 0; i < list.count; ++i) {
      const unsigned place = list.places[i];
      const std::uint16_t* at = first + place / kPaddedColumns * row + cells[place % kPaddedColumns];
      list.places[left] = place;
      left += fineDistance(at, kSpacing * row, own) <= most ? 1 : 0;
    }
    return {list.places, left};
  }

  TARVO_HOST_DEVICE void searchBand(const Band& band) {
    if (limit.most != boundsOf) {
      boundsOf = limit.most;
      bounds.set(job.codes, point.codes, boundsOf);
    }
    unsigned blocks[kBandRows * kPaddedColumns / kBlock + 1], groups[kPlaces / kGroup + 1];
    const List list = screenBand(band, listBand(boundBand(band, testBand(band, blocks), groups)));
    for (unsigned i = 0; i < list.count; ++i) {
      const int x = band.x0 + static_cast<int>(list.places[i] % kPaddedColumns);
      const int y = band.y + static_cast<int>(list.places[i] / kPaddedColumns);
      const float value = estimate(x, y);
      if (!(value <= limit.most) || !job.m.acceptable(ax, ay, x, y)) continue;
      limit.see(value);
      keep(value, x, y);
    }
  }

  TARVO_HOST_DEVICE void searchWindow() {
    const Window& window = point.window;
    int x1 = window.x1;
    for (int y = window.y0; y <= window.y1; y += kBandRows) {
      if (outcome.second == 0.0f) x1 = std::min(x1, outcome.x - 1);  // only an earlier column matters now
      if (window.x0 > x1) break;
      searchBand({window.x0, y, static_cast<unsigned>(x1 + 1 - window.x0),
                  static_cast<unsigned>(std::min(kBandRows, window.y1 + 1 - y))});
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
