#pragma once

#include "device/device.h"
#include "device/dot.h"
#ifdef __CUDACC__
#include "device/cuda/dot.cuh"
#endif

/// *result = a * b over two-plane stacks of h x w, pitch p, in the fixed order of dot.h; result and sums
/// (scratch of dotScratch floats) are device memory. Returns without waiting for a CUDA device.
inline void launchDot(const float* a, const float* b, int h, int w, int p, float* sums, float* result) {
  if (!device::beginLaunch()) return;
#ifdef __CUDACC__
  if (device::onCuda()) {
    device::cuda::dot(a, b, h, w, p, sums, result);
    return;
  }
#endif
  const long n = static_cast<long>(h) * p;
  const int segments = device::segmentsPerRow(w);
  for (int y = 0; y < h; ++y) {
    const long row = static_cast<long>(y) * p;
    device::cpu::dotRow(a + row, b + row, a + row + n, b + row + n, w,
                        sums + static_cast<long>(y) * segments);
  }
  *result = device::cpu::sumSegments(sums, h * segments);
}
