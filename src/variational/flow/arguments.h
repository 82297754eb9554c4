#pragma once

#include <tarvo/hog.h>
#include <tarvo/solvers.h>

#include "variational/flow/flow_weights.h"

namespace variational {

/// Checks of what a client hands to the function named `function`. Each throws std::invalid_argument that
/// names the argument and its value.

/// Planes of the largest stack that a flow computation indexes with an int: a histogram field; the system
/// matrix has fewer.
constexpr int kMostPlanes = kHogBins;
static_assert(kMostPlanes >= kMatrixPlanes);

/// `what`, the argument or arguments that carry the size: positive sizes, such that a stack of `planes`
/// planes can be indexed with an int whatever the pitch.
void checkPlane(const char* function, const char* what, int height, int width, int planes = kMostPlanes);
/// checkPlane, and three channels.
void checkSize(const char* function, const char* what, int height, int width, int channels);
/// Finite weights that are not negative, eta between 0 and 1, iteration counts that are not negative.
void checkWeights(const char* function, const FlowWeights& weights);

}  // namespace variational
