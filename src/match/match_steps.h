#pragma once

#include <tarvo/elementwise.h>
#include <tarvo/matching.h>

#include <algorithm>
#include <cstring>
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

/// Points with x and y = margin, margin + spacing, ... below the size less the margin, row by row.
struct Grid {
  int columns, rows;
  std::vector<int> x, y;

  Grid(int w, int h, int margin, int spacing = kSpacing)
      : columns(pointsAlong(w, margin, spacing)), rows(pointsAlong(h, margin, spacing)) {
    for (int j = 0; j < rows; ++j) {
      for (int i = 0; i < columns; ++i) {
        x.push_back(margin + i * spacing);
        y.push_back(margin + j * spacing);
      }
    }
  }
  int count() const { return static_cast<int>(x.size()); }
  static int pointsAlong(int size, int margin, int spacing) {
    return std::max(0, size - 2 * margin + spacing - 1) / spacing;
  }
};

/// The records of all grid points on the device, one array of `count` entries each, one behind the other in
/// the order of Field.
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

/// What counts and reports need of the records, on the host; fetched by one copy.
class HostRecords {
 public:
  HostRecords() = default;
  explicit HostRecords(const Records& records)
      : count_(static_cast<std::size_t>(records.count())), values_((kLast - kFirst + 1) * count_) {
    TARVO_CALL(device::copyFloats(values_.data(), records.floats(kFirst), values_.size(),
                                  device::Direction::ToHost));
  }
  int forwardX(std::size_t k) const { return at<int>(Records::ForwardX, k); }
  int forwardY(std::size_t k) const { return at<int>(Records::ForwardY, k); }
  int backwardX(std::size_t k) const { return at<int>(Records::BackwardX, k); }
  int backwardY(std::size_t k) const { return at<int>(Records::BackwardY, k); }
  float best(std::size_t k) const { return at<float>(Records::Best, k); }
  float second(std::size_t k) const { return at<float>(Records::Second, k); }
  bool consistent(const Grid& grid, std::size_t k) const {
    return kernels::consistencyCheck_kernel::within(grid.x[k], backwardX(k)) &&
           kernels::consistencyCheck_kernel::within(grid.y[k], backwardY(k));
  }

 private:
  static constexpr Records::Field kFirst = Records::ForwardX, kLast = Records::BackwardY;

  template <class Value>
  Value at(Records::Field field, std::size_t k) const {
    Value value;
    std::memcpy(&value, &values_[static_cast<std::size_t>(field - kFirst) * count_ + k], sizeof value);
    return value;
  }

  std::size_t count_ = 0;
  std::vector<float> values_;  // whole numbers by their bits
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

/// Takes the weight from matches whose point is unknown in image 1, that end on or beside an unknown pixel of
/// image 2, or more than an eighth of one of whose descriptors is unknown; known1 and known2 are 1 where a
/// picture is known, else 0.
void dropUnknown(float* weight, const float* u, const float* v, const float* known1, const float* known2,
                 int h, int w, int p);

/// kept = weight, or 0 where fewer than `least` matches of the 24 grid points within two spacings move alike: by
/// at most 4 pixels another way. kept overlaps no other plane.
void dropLone(float* kept, const float* weight, const float* u, const float* v, int spacing, int least, int h,
              int w, int p);

/// What the records hold.
NMatching::Counts countsOf(const Grid& grid, const HostRecords& records);
/// From now on the counts of NMatching::lastCounts.
void setCounts(const NMatching::Counts& latest);

/// gCreateAndMatchHOG, which hands the counts to setCounts, for points `spacing` pixels apart.
NMatching::Counts createAndMatch(const float* image1, const float* image2, float* u, float* v, float* weight,
                                 int height, int width, int pitch, int channels, int spacing = kSpacing);

/// Mean of an h x w plane with this sum, in single precision.
inline float meanOf(float sum, int h, int w) {
  return sum / (static_cast<float>(w) * static_cast<float>(h));
}

}  // namespace match
