#pragma once

#include "device/dot.h"
#include "device/launch.h"
#ifdef __CUDACC__
#include "device/cuda/dot.cuh"
#endif

/// Forms a dot product; all pointers are device memory. Returns without waiting for a CUDA device.
inline void launchDot(const device::DotProduct& dot) {
  launch(dot, [&dot] { device::cpu::run(dot); });
}
