#pragma once

namespace variational {

/// Weights and iteration counts of one flow computation.
struct FlowWeights {
  float alpha, beta, gamma, eta;
  int fixedPointIterations, solverIterations;
};

}  // namespace variational
