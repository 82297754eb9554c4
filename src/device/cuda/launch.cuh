#pragma once

#include "device/cuda/start.cuh"
#include "device/kernel.h"

namespace device::cuda {

/// Block shape of every per-pixel launch: a warp lies along a row, so that its accesses form whole lines.
constexpr unsigned kBlockX = 32;
constexpr unsigned kBlockY = 8;

template <class Kernel>
__global__ void __launch_bounds__(kBlockX* kBlockY) planeKernel(const Kernel kernel) {
  const int x = static_cast<int>(blockIdx.x * kBlockX + threadIdx.x);
  const int y = static_cast<int>(blockIdx.y * kBlockY + threadIdx.y);
  if (x < columnsOf(kernel, 0) && y < rowsOf(kernel, 0)) kernel(x, y);
}

template <class Kernel>
void launchOnCuda(const Kernel& kernel) {
  const int h = rowsOf(kernel, 0);
  const int w = columnsOf(kernel, 0);
  if (h <= 0 || w <= 0) return;
  const dim3 block(kBlockX, kBlockY);
  const dim3 grid((static_cast<unsigned>(w) + kBlockX - 1) / kBlockX,
                  (static_cast<unsigned>(h) + kBlockY - 1) / kBlockY);
  start(planeKernel<Kernel>, grid, block, kernel);
}

}  // namespace device::cuda
