#pragma once

#include "variational/pyramid/pyramid_kernels.h"

namespace variational {

/// Floats of a pixel with its channels side by side: three, and one for whole vectors.
constexpr int kWarpLanes = 4;

/// warp_motion_kernel on the CPU device, with the same bits, from a copy of the source whose pixels have
/// their channels side by side: each of a sample's four neighbours is one load instead of three gathered
/// ones. The source may overlap what is written; the flow may not, since some pixels are done twice.
/// @param pixels scratch of h x w x kWarpLanes floats
void warpOnCpu(const kernels::warp_motion_kernel& warp, float* pixels);

}  // namespace variational
