#pragma once

#include "device/kernel.h"

namespace device::cpu {

/// Floats in a cache line.
constexpr int kStep = 16;

/// Runs row.at(x) for the columns from `first` to `end` - 1 in vectors: the first kStep of them; then, from
/// column kStep on, as many whole cache lines as there are; then the last kStep, so that no column is done
/// singly. Some columns are done twice. Needs first <= kStep <= end - first.
template <class Row>
TARVO_HOST void forColumns(const Row& row, int first, int end) {
#pragma omp simd
  for (int j = 0; j < kStep; ++j) row.at(first + j);
  const int whole = end & -kStep;  // the last multiple of kStep
#pragma omp simd
  for (int x = kStep; x < whole; ++x) row.at(x);
#pragma omp simd
  for (int j = 0; j < kStep; ++j) row.at(end - kStep + j);
}

}  // namespace device::cpu
