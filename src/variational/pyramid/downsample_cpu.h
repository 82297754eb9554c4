#pragma once

namespace variational {

/// Area averages on the CPU device, many target pixels side by side, each with its samples in the order of
/// downsample_kernel and downsample_weighted_kernel and so with the same bits. weight is null for the plain
/// average.
void downsampleOnCpu(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                     const float* weight);

}  // namespace variational
