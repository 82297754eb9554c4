#pragma once

#include <tarvo/NFlow.h>

namespace api {

/// Throws std::invalid_argument, in the name of `function`, unless `image` (called `name`) can be read.
void checkImage(const char* function, const char* name, const NFlow::Image& image);

/// Whether the view shows three dense planes of floats in 0 ... 255: what convert would make.
bool isDense(const NFlow::Image& image);

/// Three planes in 0 ... 255 of a checked view.
CTensor<float> convert(const NFlow::Image& image);

}  // namespace api
