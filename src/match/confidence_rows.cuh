#pragma once

#include "match/confidence_kernels.h"

#ifdef __CUDACC__  // nothing for other compilers

#include "device/cuda/start.cuh"

namespace kernels {

/// Row sums: one block of kRowLanes threads per row, kRowLanes shared floats; thread 0 writes the result.
static __global__ void __launch_bounds__(match::kRowLanes) sumRowsKernel(const compute2DSum_kernel k) {
  using match::kRowLanes;
  __shared__ float lanes[kRowLanes];
  const int lane = static_cast<int>(threadIdx.x);
  const int y = static_cast<int>(blockIdx.x);
  float sum = 0.0f;
  for (int x = lane; x < k.w; x += kRowLanes) sum += k.plane[y * k.p + x];
  lanes[lane] = sum;
  __syncthreads();
  for (int half = kRowLanes / 2; half > 0; half /= 2) {
    if (lane < half) lanes[lane] += lanes[lane + half];
    __syncthreads();
  }
  if (lane == 0) k.rowSums[y] = lanes[0];
}

inline void launchOnCuda(const compute2DSum_kernel& k) {
  if (k.h <= 0) return;
  device::cuda::start(sumRowsKernel, dim3(static_cast<unsigned>(k.h)), dim3(match::kRowLanes), k);
}

}  // namespace kernels

#endif
