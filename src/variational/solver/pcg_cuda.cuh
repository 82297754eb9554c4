#pragma once

#include "variational/solver/persistent_solve.h"

#ifndef __CUDACC__

namespace variational::cuda {

/// Without CUDA nothing asks.
inline bool solvesInOneLaunch() {
  return false;
}

}  // namespace variational::cuda

#else

#include <cooperative_groups.h>
#include <cuda_runtime.h>

#include <algorithm>

namespace variational::cuda {

constexpr int kThreads = 256;
constexpr int kWarps = kThreads / device::kLanes;
constexpr int kBlocksPerProcessor = 4;  // at least: 64 registers a thread, which spill nothing

/// All threads of a cooperative launch. Shared memory: kThreads floats.
class GridThreads {
 public:
  __device__ explicit GridThreads(float* shared) : shared_(shared) {}

  /// A warp takes a segment; the phase's barrier follows.
  template <kernels::PersistentSolve::Phase kPhase>
  __device__ void runPhase(const kernels::PersistentSolve& s, float factor, float* sums) {
    const int segments = device::segmentsPerRow(s.w);
    segmentCount_ = s.h * segments;
    const int lane = static_cast<int>(threadIdx.x) % device::kLanes;
    const int firstWarp =
        static_cast<int>(blockIdx.x) * kWarps + static_cast<int>(threadIdx.x) / device::kLanes;
    for (int segment = firstWarp; segment < segmentCount_; segment += static_cast<int>(gridDim.x) * kWarps) {
      const int row = segment / segments;
      const int start = segment % segments * device::kSegment;
      const int end = start + device::kSegment < s.w ? start + device::kSegment : s.w;
      float sum = 0.0f;
      for (int column = start + lane; column < end; column += device::kLanes) {
        sum = s.pixel<kPhase>(column, row, factor, sum);
      }
      if (sums != nullptr) {
        for (int half = device::kLanes / 2; half > 0; half /= 2)
          sum += __shfl_down_sync(0xffffffffu, sum, half);
        if (lane == 0) sums[segment] = sum;
      }
    }
    barrier();
  }

  /// The sum of all segment sums, the same bits in every thread: device::kFinalLanes lanes, four to a thread,
  /// added by halving. The first two halvings are within a thread; every warp does the others for itself,
  /// three of them from shared memory, five by shuffles, so that the block waits only once. Between two
  /// totals lies a phase, whose barrier keeps the second from overwriting what the first still reads.
  __device__ float total(const float* sums) {
    static_assert(kThreads == 256 && device::kFinalLanes == 4 * kThreads && device::kLanes == 32,
                  "the halvings are written out");
    const int t = static_cast<int>(threadIdx.x);
    float lanes[4];
    for (int j = 0; j < 4; ++j) {
      lanes[j] = 0.0f;
      for (int i = t + j * kThreads; i < segmentCount_; i += device::kFinalLanes) lanes[j] += sums[i];
    }
    shared_[t] = (lanes[0] + lanes[2]) + (lanes[1] + lanes[3]);
    __syncthreads();
    const float* from = shared_ + t % device::kLanes;
    float sum =
        ((from[0] + from[128]) + (from[64] + from[192])) + ((from[32] + from[160]) + (from[96] + from[224]));
    for (int half = device::kLanes / 2; half > 0; half /= 2) sum += __shfl_down_sync(0xffffffffu, sum, half);
    return __shfl_sync(0xffffffffu, sum, 0);
  }

 private:
  __device__ static void barrier() {
    if (gridDim.x == 1) {
      __syncthreads();
    } else {
      cooperative_groups::this_grid().sync();
    }
  }

  float* shared_;
  int segmentCount_ = 0;
};

static __global__ void __launch_bounds__(kThreads, kBlocksPerProcessor)
    persistentSolveKernel(const kernels::PersistentSolve solve) {
  __shared__ float shared[kThreads];
  GridThreads threads(shared);
  solve.run(threads);
}

/// Blocks that the current device can hold at the same time; 0 where it has no cooperative launches.
inline int mostBlocks() {
  int device = 0, cooperative = 0, processors = 0, blocks = 0;
  if (cudaGetDevice(&device) != cudaSuccess) return 0;
  static thread_local int knownDevice = -1, known = 0;
  if (knownDevice == device) return known;
  cudaDeviceGetAttribute(&cooperative, cudaDevAttrCooperativeLaunch, device);
  cudaDeviceGetAttribute(&processors, cudaDevAttrMultiProcessorCount, device);
  cudaOccupancyMaxActiveBlocksPerMultiprocessor(&blocks, persistentSolveKernel, kThreads, 0);
  knownDevice = device;
  known = cooperative != 0 ? processors * blocks : 0;
  return known;
}

/// Whether the current device can run a whole solve in one launch.
inline bool solvesInOneLaunch() {
  return mostBlocks() > 0;
}

}  // namespace variational::cuda

namespace kernels {

/// One warp for a segment as far as the device holds them at once.
inline void launchOnCuda(PersistentSolve solve) {
  using namespace variational::cuda;
  const int segments = solve.h * device::segmentsPerRow(solve.w);
  const int blocks = std::min((segments + kWarps - 1) / kWarps, mostBlocks());
  void* arguments[] = {&solve};
  cudaLaunchCooperativeKernel(persistentSolveKernel, dim3(static_cast<unsigned>(blocks)), dim3(kThreads),
                              arguments);
}

}  // namespace kernels

#endif
