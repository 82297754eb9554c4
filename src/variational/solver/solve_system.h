#pragma once

#include <tarvo/variational.h>

namespace variational {

/// As gPCG for the increment of the system that assembleSystem has made: fp.matrix holds what
/// kernels::SystemLayout::once names.
void solveSystem(const FPtmp& fp, int h, int w, int p, int iterations, const CGtmp& cg);

}  // namespace variational
