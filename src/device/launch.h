#pragma once

#include "device/cpu/launch.h"
#include "device/device.h"
#include "device/kernel.h"
#ifdef __CUDACC__
#include "device/cuda/launch.cuh"
#elif TARVO_WITH_CUDA
#error "This unit launches kernels: name it with tarvo_device_sources, so that the CUDA compiler compiles it."
#endif

/// Runs a kernel at every pixel of its plane on a CUDA device; on the CPU device its own form, `onCpu()`, in
/// its place. Returns without waiting for a CUDA device; later work is ordered behind it. Errors: the next
/// launch check.
///
/// A kernel with blocks of its own on a CUDA device has a function launchOnCuda(kernel) in its namespace,
/// in a .cuh file.
template <class Kernel, class Form>
void launch([[maybe_unused]] const Kernel& kernel, const Form& onCpu) {
  if (!device::beginLaunch()) return;
#ifdef __CUDACC__
  if (device::onCuda()) {
    using device::cuda::launchOnCuda;
    launchOnCuda(kernel);
    return;
  }
#endif
  onCpu();
}

/// The same for a kernel, a struct whose call operator does one pixel, that both devices run as it stands.
template <class Kernel>
void launch(const Kernel& kernel) {
  launch(kernel, [&kernel] { device::cpu::launchPlane(kernel); });
}
