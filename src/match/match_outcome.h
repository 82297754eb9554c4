#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "match/match_kernels.h"

// What a search on the CPU (match_cpu.cpp) looks for, and what it has found of a point so far. Candidates
// come in any order. Both kinds of search have
//   most: the largest estimate that still matters;
//   see(estimate): tells the estimate of an acceptable candidate, perhaps more than once;
//   add(distance, x, y): tells the distance of an acceptable candidate whose estimate still mattered; once to
//   NearestTwo, perhaps again to Nearer if it is one of those given first;
//   tighten(): lowers `most` by the distances that were added;
//   lastColumn(x1): the last column, at most x1, where a candidate still matters.

namespace match {

/// A candidate whose estimate exceeds this is surely farther than one whose estimate or distance is `value`.
TARVO_HOST_DEVICE float loosened(float value) {
  return value * 1.0001f + 1e-30f;
}

/// Whether (x, y) comes before (x2, y2) where distances are equal: column by column, each from the top down.
TARVO_HOST_DEVICE bool before(int x, int y, int x2, int y2) {
  return x < x2 || (x == x2 && y < y2);
}

/// The search for the nearest candidate and the second distance.
struct NearestTwo {
  static constexpr unsigned kWords = (kMostColumns + 63) / 64;
  float best = kRejected, second = kRejected;
  int x = 0, y = 0;
  std::uint64_t nearest[kWords] = {};  // columns that reach `best`, modulo the bits: distinct in a window
  float least = kRejected;             // smallest estimate
  float most = loosened(kRejected);

  TARVO_HOST_DEVICE void see(float estimate) {
    if (estimate < least) {
      if (least > loosened(estimate)) most = std::min(most, loosened(least));
      least = estimate;
    } else if (estimate > loosened(least)) {
      most = std::min(most, loosened(estimate));
    }
  }
  TARVO_HOST_DEVICE void add(float d, int newX, int newY) {
    const auto column = static_cast<unsigned>(newX);
    std::uint64_t& word = nearest[column / 64 % kWords];
    const std::uint64_t bit = std::uint64_t{1} << (column % 64);
    if (d < best) {
      second = best;
      best = d;
      x = newX, y = newY;
      std::memset(nearest, 0, sizeof nearest);
      word = bit;
    } else if (d == best && best < kRejected) {
      if ((word & bit) != 0) second = best;
      if (before(newX, newY, x, y)) x = newX, y = newY;
      word |= bit;
    } else if (d < second) {
      second = d;
    }
  }
  TARVO_HOST_DEVICE void tighten() { most = std::min(most, loosened(second)); }
  /// Once the second distance is 0 only an earlier column matters.
  TARVO_HOST_DEVICE int lastColumn(int x1) const { return second == 0.0f ? std::min(x1, x - 1) : x1; }
};

/// The search for anything nearer than the nearest of some candidates, which are given first.
struct Nearer {
  float best = kRejected;  // of those given
  int x = 0, y = 0;
  float most = loosened(kRejected);
  bool given = false;  // all of those have been given
  bool found = false;  // something nearer, or as near and before

  TARVO_HOST_DEVICE void see(float estimate) {
    if (!given) most = std::min(most, loosened(estimate));
    if (given && loosened(estimate) < best) found = true;
  }
  TARVO_HOST_DEVICE void add(float d, int newX, int newY) {
    if (!(d < best) && !(d == best && best < kRejected && before(newX, newY, x, y))) return;
    if (given) {
      found = true;
    } else {
      best = d;
      x = newX, y = newY;
    }
  }
  TARVO_HOST_DEVICE void tighten() { most = std::min(most, loosened(best)); }
  TARVO_HOST_DEVICE int lastColumn(int x1) const { return found ? -1 : x1; }
};

}  // namespace match
