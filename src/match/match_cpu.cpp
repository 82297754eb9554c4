#include "match/match_cpu.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "device/cpu/launch.h"
#include "match/match_outcome.h"
#include "match/match_screen.h"

// The search of a point on the CPU, with exactly the results of kernels::HOGMatch_kernel.
//
// Some rows of the window at a time:
//  1. the tests in bytes (match_screen.h), which list what passes;
//  2. each candidate of the list in turn: an estimate of the distance, cell by cell with the bins side by
//     side, given up once it is too large; then the energy and colour test itself;
//  3. what is left at the end of the window, a few candidates, is measured in the fixed order; sooner if
//     there are too many.
//
// Why this is exact. Distance and estimate add the same 135 rounded squares in different orders, so they
// differ by less than a factor of 1 + 1e-5 and, where squares underflow, 1e-40. So of two candidates with
// estimates a and b > loosened(a) the second is surely farther. An estimate of 0 is a distance of 0. The
// tests in bytes pass every acceptable candidate whose estimate does not exceed the limit that they were set
// for, and limits only fall.
//
// The search for the nearest two: with m the smallest distance, the second distance T is m if some column
// reaches m twice, else the smallest distance greater than m; both are values of the set of all candidates,
// whatever their order. A candidate with a distance greater than T changes neither, and one whose estimate
// exceeds loosened(b), b being the estimate of any acceptable candidate surely farther than m, is farther
// than T.
//
// matchHome: the match lies within one pixel of home if nothing in the window is nearer than the nearest
// candidate there, or as near and before it. So that candidate's distance is the limit from the start, and
// the first candidate found nearer ends the search; an estimate e with loosened(e) below that distance proves
// that it is nearer, without measuring.

namespace match {
namespace {

constexpr int kLanes = 16;    // a cell's bins and one zero
constexpr int kMeasured = 8;  // candidates measured together
constexpr int kMostKept = 512;
constexpr int kPointsPerChunk = 32;

struct Job {
  kernels::HOGMatch_kernel m;
  float* cells;  // image B: at pixel y * w + x its 15 bins and a zero
  Codes codes;
  const int *homeX, *homeY;  // for matchHome, else null
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
  float colour[kPictureChannels];
  for (int c = 0; c < kPictureChannels; ++c) colour[c] = m.imageA[m.plane(c) + m.at(ax, ay)];
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

/// State of one point's search. `Goal` is what it looks for (match_outcome.h).
template <class Goal>
struct Search {
  const Job& job;
  const int ax, ay;
  Point point;
  Goal goal;
  Bounds bounds;
  float boundsOf = -1.0f;  // the limit that `bounds` belong to
  int kept = 0;
  Candidate candidates[kMostKept];
  Screening screening;

  TARVO_HOST_DEVICE Search(const Job& theJob, int pointX, int pointY) : job(theJob), ax(pointX), ay(pointY) {
    loadPoint(point, job, ax, ay);
  }

  TARVO_HOST_DEVICE const float* cellAt(int x, int y, int k) const {
    const long pixel = static_cast<long>(y + cellRow(k)) * job.m.w + x + cellColumn(k);
    return job.cells + pixel * kLanes;
  }

  /// Estimate of the distance of (x, y), or of a part of the distance if that exceeds the limit.
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
    if (part > goal.most) return part;
    squares.addCell(point.cells[1], centre - row);
    squares.addCell(point.cells[3], centre - kColumn);
    squares.addCell(point.cells[4], centre);
    squares.addCell(point.cells[5], centre + kColumn);
    squares.addCell(point.cells[7], centre + row);
    return squares.sum();
  }

  TARVO_HOST_DEVICE void keep(float value, int x, int y) {
    if (value == 0.0f) {
      goal.add(0.0f, x, y);
      return;
    }
    candidates[kept++] = {value, x, y};
    if (kept == kMostKept) measure();
  }

  /// Distances of kMeasured candidates, every one in the fixed order.
  TARVO_HOST_DEVICE void distances(const Candidate* group, float* sums) const {
    const float* cells[kCells][kMeasured];
    for (int k = 0; k < kCells; ++k) {
      for (int c = 0; c < kMeasured; ++c) cells[k][c] = cellAt(group[c].x, group[c].y, k);
    }
    for (int c = 0; c < kMeasured; ++c) sums[c] = 0.0f;
    for (int b = 0; b < kHogBins; ++b) {
      for (int k = 0; k < kCells; ++k) {
        for (int c = 0; c < kMeasured; ++c) {
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
      if (candidates[i].estimate <= goal.most) candidates[left++] = candidates[i];
    }
    kept = 0;
    for (int start = 0; start < left; start += kMeasured) {
      Candidate group[kMeasured];
      const int n = std::min(kMeasured, left - start);
      for (int c = 0; c < kMeasured; ++c) group[c] = candidates[start + std::min(c, n - 1)];
      float sums[kMeasured];
      distances(group, sums);
      for (int c = 0; c < n; ++c) goal.add(sums[c], group[c].x, group[c].y);
    }
    goal.tighten();
  }

  /// Shows the acceptable candidates within one pixel of (x, y) to the goal, and keeps them if kKeep. Where a
  /// match is likely this lowers the limit.
  template <bool kKeep>
  TARVO_HOST_DEVICE void lookAround(int x, int y) {
    const Window& window = point.window;
    for (int row = std::max(window.y0, y - 1); row <= std::min(window.y1, y + 1); ++row) {
      for (int column = std::max(window.x0, x - 1); column <= std::min(window.x1, x + 1); ++column) {
        if (!job.m.acceptable(ax, ay, column, row)) continue;
        const float value = estimate(column, row);
        if (kKeep && value <= goal.most) keep(value, column, row);
        goal.see(value);
      }
    }
  }

  TARVO_HOST_DEVICE void searchBand(const Band& band) {
    if (goal.most != boundsOf) {
      boundsOf = goal.most;
      bounds.set(job.codes, point.codes, boundsOf);
    }
    const unsigned left = screen(job.codes, point.codes, bounds, band, screening);
    for (unsigned i = 0; i < left; ++i) {
      const int x = band.x0 + static_cast<int>(screening.places[i] % kPaddedColumns);
      const int y = band.y + static_cast<int>(screening.places[i] / kPaddedColumns);
      const float value = estimate(x, y);
      if (!(value <= goal.most) || !job.m.acceptable(ax, ay, x, y)) continue;
      goal.see(value);
      keep(value, x, y);
    }
  }

  TARVO_HOST_DEVICE void searchWindow() {
    const Window& window = point.window;
    for (int y = window.y0; y <= window.y1; y += kBandRows) {
      const int x1 = goal.lastColumn(window.x1);
      if (window.x0 > x1) break;
      searchBand({window.x0, y, static_cast<unsigned>(x1 + 1 - window.x0),
                  static_cast<unsigned>(std::min(kBandRows, window.y1 + 1 - y))});
    }
    measure();
  }
};

/// Points k0 ... k1 - 1 in order, since neighbours mostly move alike.
TARVO_BAND void matchBand(Job job, int k0, int k1) {
  const kernels::HOGMatch_kernel& m = job.m;
  int u = 0, v = 0;
  for (int k = k0; k < k1; ++k) {
    const int ax = m.pointX[k];
    const int ay = m.pointY[k];
    if (!m.searched(ax, ay)) continue;
    Search<NearestTwo> search(job, ax, ay);
    search.lookAround<false>(ax + u, ay + v);
    if (u != 0 || v != 0) search.lookAround<false>(ax, ay);
    search.searchWindow();
    const NearestTwo& result = search.goal;
    m.matchX[k] = result.x;
    m.matchY[k] = result.y;
    m.bestDistance[k] = result.best;
    m.secondDistance[k] = result.second;
    if (result.best < kRejected) u = result.x - ax, v = result.y - ay;
  }
}

/// The same for matchHome. What is nearer than home mostly moves like the match of the neighbour.
TARVO_BAND void matchHomeBand(Job job, int k0, int k1) {
  const kernels::HOGMatch_kernel& m = job.m;
  int u = 0, v = 0;
  for (int k = k0; k < k1; ++k) {
    const int ax = m.pointX[k];
    const int ay = m.pointY[k];
    if (!m.searched(ax, ay)) continue;
    Search<Nearer> search(job, ax, ay);
    Nearer& goal = search.goal;
    search.lookAround<true>(job.homeX[k], job.homeY[k]);
    search.measure();
    goal.given = true;
    if (goal.best < kRejected) {
      search.lookAround<false>(ax + u, ay + v);
      search.searchWindow();
    }
    const bool home = goal.best < kRejected && !goal.found;
    m.matchX[k] = home ? goal.x : 0;
    m.matchY[k] = home ? goal.y : 0;
    if (home) u = goal.x - ax, v = goal.y - ay;
  }
}

/// Rows y0 ... y1 - 1 of image B: histograms reordered pixel by pixel, and codes.
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

Job jobOf(const kernels::HOGMatch_kernel& m, float* scratch, const int* homeX, const int* homeY) {
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
  return {m, scratch, codes, homeX, homeY};
}

/// Collects image B, then searches all points.
void run(const Job& job, void (*band)(Job job, int k0, int k1)) {
  device::cpu::forBands(job.m.h, job.m.w, [&](int y0, int y1) { collectBand(job, y0, y1); });
  device::cpu::forBandsOf(kPointsPerChunk, job.m.outW, [&](int k0, int k1) { band(job, k0, k1); });
}

}  // namespace

std::size_t cpuMatchScratch(int h, int w) {
  const Layout layout(h, w);
  return layout.cells + layout.offsets + layout.fine + layout.planes + layout.open;
}

void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch) {
  run(jobOf(search, scratch, nullptr, nullptr), matchBand);
}

void cpuMatchHome(const kernels::HOGMatch_kernel& search, const int* homeX, const int* homeY,
                  float* scratch) {
  run(jobOf(search, scratch, homeX, homeY), matchHomeBand);
}

}  // namespace match
