#pragma once

#include "device/device.h"

namespace device::cpu {

/// Where work runs on the CPU device: runs its own form of a step, which counts as one launch, and returns
/// true. On a CUDA device false: the caller launches the kernels that the form stands for. A step of a single
/// kernel has the shorter `launch(kernel, form)` of device/launch.h.
template <class Form>
bool runs(const Form& form) {
  if (onCuda()) return false;
  if (beginLaunch()) form();
  return true;
}

}  // namespace device::cpu
