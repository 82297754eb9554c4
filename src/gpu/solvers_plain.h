#pragma once

#include <tarvo/solvers.h>

namespace gpu {

/// gPCG as a list of kernel launches, one per step: its form on the CUDA device, the one that leaves the
/// contents of the work vectors as promised for no iterations, and the twin against which the tests hold the
/// CPU's sweeps (which is why it is exported). x is the stack (du, dv).
TARVO_API void plainPCG(const float* matrix, const float* rhs, float* x, int h, int w, int p, int iterations,
                        CGtmp cg);

}  // namespace gpu
