#pragma once

#include "variational/filter/weighted_median_kernels.h"

namespace variational {

/// WeightedMedian on the CPU device, with the same bits: kWide pixels of a row side by side. Their weights are
/// computed and their windows gathered once, for all halvings of both components.
void weightedMedianOnCpu(const kernels::WeightedMedian& median);

}  // namespace variational
