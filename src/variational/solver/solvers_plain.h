#pragma once

#include <tarvo/solvers.h>
#include <tarvo/variational.h>

#include "variational/solver/solver_kernels.h"

namespace variational {

/// gPCG as a list of kernel launches, one per step: the form that leaves the contents of the work vectors as
/// promised for no iterations, that of CUDA devices without cooperative launches, and the twin against which
/// the tests hold the devices' own forms. x is the stack (du, dv).
void plainPCG(const float* matrix, const float* rhs, float* x, int h, int w, int p, int iterations, CGtmp cg,
              kernels::SystemLayout layout);

/// relaxSystem as a list of kernel launches: the form of CUDA devices, and the twin of the CPU's own. Leaves
/// the blocks of fp.matrix inverted.
void plainRelaxation(const FPtmp& fp, int h, int w, int p, int sweeps, float omega);

}  // namespace variational
