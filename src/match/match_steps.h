#pragma once

#include <tarvo/elementwise.h>

#include <algorithm>
#include <vector>

#include "device/memory.h"
#include "match/match_kernels.h"
#include "match/unit.h"

/// The parts of the matching step that its functions on device planes (match_device.cpp) and on host arrays
/// (match_host.cpp) share.
namespace match {

/// First grid coordinate of the device pipeline; no candidate lies nearer to the border.
constexpr int kGridMargin = kWindowMargin;

/// Device planes that are matched; image 1 is searched in image 2.
struct Pair {
  const float *image1, *image2, *hog1, *hog2, *confidence, *energy1, *energy2;
  float meanConfidence;
  int h, w, p;
};

/// Points with x and y = margin, margin + 4, ... below the size less the margin, row by row.
struct Grid {
  int columns, rows;
  std::vector<int> x, y;

  Grid(int w, int h, int margin) : columns(pointsAlong(w, margin)), rows(pointsAlong(h, margin)) {
    for (int j = 0; j < rows; ++j) {
      for (int i = 0; i < columns; ++i) {
        x.push_back(margin + i * kSpacing);
        y.push_back(margin + j * kSpacing);
      }
    }
  }
  int count() const { return static_cast<int>(x.size()); }
  static int pointsAlong(int size, int margin) {
    return std::max(0, size - 2 * margin + kSpacing - 1) / kSpacing;
  }
};

/// The records of all grid points on the device, one array of `count` entries each.
class Records {
 public:
  enum Field { PointX, PointY, ForwardX, ForwardY, Best, Second, BackwardX, BackwardY, BackBest, BackSecond };
  static constexpr int kFields = 10;

  explicit Records(const Grid& grid) : count_(grid.count()) {
    TARVO_CALL(memory_.allocate(kFields * size()));
    TARVO_CALL(device::clear(memory_.get(), kFields * size() * sizeof(float)));
    fill(PointX, grid.x);
    fill(PointY, grid.y);
    setValue_kernel(floats(Best), 1, count_, count_, kNotSearched);
  }
  int count() const { return count_; }
  int* ints(Field field) const { return reinterpret_cast<int*>(floats(field)); }
  float* floats(Field field) const { return memory_.get() + static_cast<std::size_t>(field) * size(); }
  void release() { TARVO_CALL(memory_.release()); }

  static constexpr float kNotSearched = -1.0f;

 private:
  std::size_t size() const { return static_cast<std::size_t>(count_); }
  void fill(Field field, const std::vector<int>& values) {
    const std::size_t bytes = size() * sizeof(int);
    TARVO_CALL(
        device::copyRows(ints(field), bytes, values.data(), bytes, bytes, 1, device::Direction::ToDevice));
  }

  device::Buffer memory_;
  int count_;
};

/// The records on the host.
struct HostRecords {
  std::vector<int> forwardX, forwardY, backwardX, backwardY;
  std::vector<float> best, second;

  HostRecords() = default;
  explicit HostRecords(const Records& records) {
    fetch(forwardX, records.ints(Records::ForwardX), records.count());
    fetch(forwardY, records.ints(Records::ForwardY), records.count());
    fetch(backwardX, records.ints(Records::BackwardX), records.count());
    fetch(backwardY, records.ints(Records::BackwardY), records.count());
    fetch(best, records.floats(Records::Best), records.count());
    fetch(second, records.floats(Records::Second), records.count());
  }
  bool consistent(const Grid& grid, std::size_t k) const {
    return kernels::consistencyCheck_kernel::within(grid.x[k], backwardX[k]) &&
           kernels::consistencyCheck_kernel::within(grid.y[k], backwardY[k]);
  }

 private:
  template <class Value>
  static void fetch(std::vector<Value>& to, const Value* from, int count) {
    to.resize(static_cast<std::size_t>(count));
    const std::size_t bytes = to.size() * sizeof(Value);
    TARVO_CALL(device::copyRows(to.data(), bytes, from, bytes, bytes, 1, device::Direction::ToHost));
  }
};

/// A backward search, which tells whether a point's match lies within one pixel of the point's home (x and y
/// at least 2). If it does, matchX and matchY are those of HOGMatch_kernel; if not, they name some position
/// farther off. The distances mean nothing. On the CPU this takes less search.
void matchHome(const kernels::HOGMatch_kernel& search, const int* homeX, const int* homeY);

/// Floats that gCreateAndMatchHOG takes from the pool at one time.
std::size_t matchingFloats(int h, int w, int p);

/// What the records hold of the backward search: all matches and distances, or what matchHome writes.
enum class Backward { Matches, Home };

/// Forward match, backward match of what it found, consistency check.
void matchBothWays(const Pair& pair, const Records& records, Backward backward, float* weight, float* u,
                   float* v);

/// Counts the records for NMatching::lastCounts.
void setCounts(const Grid& grid, const HostRecords& records);

/// Mean of an h x w plane with this sum, in single precision.
inline float meanOf(float sum, int h, int w) {
  return sum / (static_cast<float>(w) * static_cast<float>(h));
}

}  // namespace match
