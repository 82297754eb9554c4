#pragma once

#include "device/cpu/launch.h"
#include "device/device.h"
#include "device/kernel.h"
#ifdef __CUDACC__
#include "device/cuda/launch.cuh"
#endif

/// Runs a kernel, a struct whose call operator does one pixel, at every pixel of its plane on the chosen
/// device. Returns without waiting for a CUDA device; later work is ordered behind it. Errors: the next
/// launch check.
template <class Kernel>
void launch(const Kernel& kernel) {
  if (!device::beginLaunch()) return;
#ifdef __CUDACC__
  if (device::onCuda()) {
    device::cuda::launchPlane(kernel);
    return;
  }
#endif
  device::cpu::launchPlane(kernel);
}

/// Runs the CPU device's own form of a step, which stands for one launch of the kernels it replaces.
template <class Form>
void launchCpuForm(const Form& form) {
  if (device::beginLaunch()) form();
}

/// In a function that returns nothing: where work runs on a CUDA device, runs its own form of a step, a call
/// of a function in a .cuh file, and returns.
#ifdef __CUDACC__
#define TARVO_RETURN_FROM_CUDA_FORM(call) \
  if (device::onCuda()) {                 \
    if (device::beginLaunch()) call;      \
    return;                               \
  }                                       \
  static_assert(true, "")
#else
#define TARVO_RETURN_FROM_CUDA_FORM(call) static_assert(true, "")
#endif
