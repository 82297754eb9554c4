#pragma once

#include "variational/pyramid/pyramid_kernels.h"

namespace variational {

/// EnlargeFlow on the CPU device, with the same bits: every source row is interpolated along x once and held
/// for the target rows that lie beside it, and the positions along x are computed once for all rows of a
/// band. Source and output must not overlap.
void enlargeOnCpu(const kernels::EnlargeFlow& enlarge);

}  // namespace variational
