#pragma once

#include "match/match_kernels.h"

#ifdef __CUDACC__  // nothing for other compilers

#include "device/cuda/start.cuh"

namespace match::cuda {

/// Threads of a block; each takes one column of the search window.
constexpr int kThreads = 256;
static_assert(kMostColumns <= kThreads, "every column has its thread");

/// Minimum of the block's values by halving, with barriers around every step; every thread returns it.
__device__ inline float blockMinimum(float* distance, float own) {
  const int t = static_cast<int>(threadIdx.x);
  distance[t] = own;
  __syncthreads();
  for (int half = kThreads / 2; half > 0; half /= 2) {
    if (t < half) distance[t] = fminf(distance[t], distance[t + half]);
    __syncthreads();
  }
  const float least = distance[0];
  __syncthreads();
  return least;
}

/// One block per point, one thread per window column: neighbouring threads read neighbouring candidates of
/// one row at a time, so their accesses form whole lines. Shared memory: the point's descriptor (135 floats),
/// 256 floats for the minima, one integer for the first of the nearest columns, whose thread writes the
/// position.
static __global__ void __launch_bounds__(kThreads) matchKernel(const kernels::HOGMatch_kernel m) {
  __shared__ float descriptor[kDescriptorSize];
  __shared__ float distance[kThreads];
  __shared__ int first;
  const int t = static_cast<int>(threadIdx.x);
  const int k = static_cast<int>(blockIdx.x);
  const int ax = m.pointX[k];
  const int ay = m.pointY[k];
  if (!m.searched(ax, ay)) return;  // whole blocks leave
  if (t < kDescriptorSize) {
    descriptor[t] = m.element(m.hogA, ax, ay, t / kHogBins, t % kHogBins);
  }
  if (t == 0) first = kThreads;
  __syncthreads();

  const Window window = windowAround(ax, ay, m.h, m.w);
  Column own;
  if (window.x0 + t <= window.x1) {
    own = m.column<true>(descriptor, ax, ay, window.x0 + t, window.y0, window.y1);
  }
  const float least = blockMinimum(distance, own.best);
  if (own.best == least) atomicMin(&first, t);
  const float second = blockMinimum(distance, own.best == least ? own.second : own.best);
  if (t == first) {
    m.matchX[k] = own.x;
    m.matchY[k] = own.y;
    m.bestDistance[k] = least;
    m.secondDistance[k] = second;
  }
}

}  // namespace match::cuda

namespace kernels {

inline void launchOnCuda(const HOGMatch_kernel& m) {
  using namespace match::cuda;
  if (m.outW > 0) {
    device::cuda::start(matchKernel, dim3(static_cast<unsigned>(m.outW)), dim3(kThreads), m);
  }
}

}  // namespace kernels

#endif
