#pragma once

#include "variational/flow/coarse_to_fine.h"

namespace variational {

/// gVariationalFlowTarvo with further terms: two new planes u and v of the input's size and pitch. With sigma > 0
/// a notice is printed.
void solveFlow(const FlowInput& input, const FlowWeights& weights, float sigma, float** u, float** v);

}  // namespace variational
