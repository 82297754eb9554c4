#pragma once

#include "device/cuda/start.cuh"
#include "device/dot.h"

namespace device::cuda {

/// Segment sums of a dot product: one warp per segment, lane j as in the fixed shape; 8 warps per block.
/// Shared memory: none. Result: lane 0 of each warp.
static __global__ void dotSegmentsKernel(const float* a, const float* b, int h, int w, int p, float* sums) {
  const int segments = segmentsPerRow(w);
  const int segment = static_cast<int>(blockIdx.x * (blockDim.x / kLanes) + threadIdx.x / kLanes);
  if (segment >= h * segments) return;  // whole warps leave
  const int lane = static_cast<int>(threadIdx.x) % kLanes;
  const int start = segment % segments * kSegment;
  const int end = start + kSegment < w ? start + kSegment : w;
  const int row = segment / segments * p;
  const int second = h * p;
  float sum = 0.0f;
  for (int x = start + lane; x < end; x += kLanes) {
    sum = fmaf(a[row + x + second], b[row + x + second], fmaf(a[row + x], b[row + x], sum));
  }
  for (int half = kLanes / 2; half > 0; half /= 2) sum += __shfl_down_sync(0xffffffffu, sum, half);
  if (lane == 0) sums[segment] = sum;
}

/// The final sum: one block of kFinalLanes threads, kFinalLanes shared floats; thread 0 writes the result.
static __global__ void __launch_bounds__(kFinalLanes)
    dotFinalKernel(const float* sums, int n, float* result) {
  __shared__ float lanes[kFinalLanes];
  const int lane = static_cast<int>(threadIdx.x);
  float sum = 0.0f;
  for (int i = lane; i < n; i += kFinalLanes) sum += sums[i];
  lanes[lane] = sum;
  __syncthreads();
  for (int half = kFinalLanes / 2; half > 0; half /= 2) {
    if (lane < half) lanes[lane] += lanes[lane + half];
    __syncthreads();
  }
  if (lane == 0) *result = lanes[0];
}

}  // namespace device::cuda

namespace device {

inline void launchOnCuda(const DotProduct& dot) {
  constexpr unsigned kWarps = 8;
  const int n = dot.h * segmentsPerRow(dot.w);
  const unsigned blocks = (static_cast<unsigned>(n) + kWarps - 1) / kWarps;
  cuda::start(cuda::dotSegmentsKernel, dim3(blocks), dim3(kWarps * kLanes), dot.a, dot.b, dot.h, dot.w, dot.p,
              dot.sums);
  cuda::start(cuda::dotFinalKernel, dim3(1), dim3(kFinalLanes), dot.sums, n, dot.result);
}

}  // namespace device
