#pragma once

#include <tarvo/NFlow.h>

namespace variational {

/// Weights, iteration counts and further terms of one flow computation; without the latter, their neutral values.
struct FlowWeights {
  float alpha, beta, gamma, eta;
  int fixedPointIterations, solverIterations;
  NFlow::Terms terms{};
};

}  // namespace variational
