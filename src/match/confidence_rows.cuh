#pragma once

#include "match/confidence_kernels.h"

#ifdef __CUDACC__  // nothing for other compilers

#include "device/cuda/start.cuh"

namespace match {

/// Row sums: one block of kRowLanes threads per row, kRowLanes shared floats; thread 0 writes the result.
static __global__ void __launch_bounds__(kRowLanes)
    sumRowsKernel(const float* plane, float* rowSums, int w, int p) {
  __shared__ float lanes[kRowLanes];
  const int lane = static_cast<int>(threadIdx.x);
  const int y = static_cast<int>(blockIdx.x);
  float sum = 0.0f;
  for (int x = lane; x < w; x += kRowLanes) sum += plane[y * p + x];
  lanes[lane] = sum;
  __syncthreads();
  for (int half = kRowLanes / 2; half > 0; half /= 2) {
    if (lane < half) lanes[lane] += lanes[lane + half];
    __syncthreads();
  }
  if (lane == 0) rowSums[y] = lanes[0];
}

inline void sumRowsOnCuda(const float* plane, float* rowSums, int h, int w, int p) {
  if (h <= 0) return;
  device::cuda::start(sumRowsKernel, dim3(static_cast<unsigned>(h)), dim3(kRowLanes), plane, rowSums, w, p);
}

}  // namespace match

#endif
