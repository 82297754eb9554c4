#pragma once

#include "variational/flow/weights.h"

namespace variational {

/// Checks of what a client hands to the function named `function`. Each throws std::invalid_argument that
/// names the argument and its value.

/// `what`, the argument or arguments that carry the size: positive sizes whose largest stack of planes can be
/// indexed with an int, and three channels.
void checkSize(const char* function, const char* what, int height, int width, int channels);
/// Finite weights that are not negative, eta between 0 and 1, iteration counts that are not negative.
void checkWeights(const char* function, const FlowWeights& weights);

}  // namespace variational
