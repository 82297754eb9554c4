#pragma once

namespace variational {

/// Area averages on the CPU device, many target pixels side by side. Each takes its samples in the order of
/// downsample_kernel or downsample_weighted_kernel, and so has the same bits. weight is null for the former.
void downsampleOnCpu(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                     const float* weight);

}  // namespace variational
