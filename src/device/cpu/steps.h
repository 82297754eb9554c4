#pragma once

#include <algorithm>

#include "device/kernel.h"

namespace device::cpu {

/// Columns that a loop over a row takes at a time: as many floats as a cache line holds.
constexpr int kStep = 16;

/// The first column of the step behind the one at x, `end` behind the last one. Steps begin at multiples of
/// kStep, where vectors lie within cache lines, but for the first, wherever it begins, and the last, which
/// ends at `end`; these two may visit columns of their neighbours again. Needs kStep columns or more.
TARVO_HOST int nextStep(int x, int end) {
  return x + kStep == end ? end : std::min((x & -kStep) + kStep, end - kStep);
}

}  // namespace device::cpu
