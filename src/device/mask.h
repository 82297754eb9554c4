#pragma once

#include "device/kernel.h"

namespace device {

/// Most taps of a mask that travels with the kernel; longer ones lie in device memory.
constexpr int kInlineTaps = 32;

/// Taps of a filter mask as a kernel reads them.
struct Taps {
  float inlined[kInlineTaps];
  const float* stored;  // null where the taps are inlined
  int size;

  TARVO_HOST_DEVICE float operator[](int i) const { return stored != nullptr ? stored[i] : inlined[i]; }
};

}  // namespace device
