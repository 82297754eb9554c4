#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "match/match_kernels.h"

// What the search on the CPU (match_cpu.cpp) knows of a point so far; it meets the candidates in any order.

namespace match {

/// A distance whose estimate exceeds this surely exceeds one with the estimate `value`.
TARVO_HOST_DEVICE float loosened(float value) {
  return value * 1.0001f + 1e-30f;
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

}  // namespace match
