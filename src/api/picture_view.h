#pragma once

#include <tarvo/NFlow.h>

#include <vector>

namespace api {

/// Throws std::invalid_argument, in the name of `function`, unless `image` (called `name`) can be read.
void checkImage(const char* function, const char* name, const NFlow::Image& image);

/// Throws std::invalid_argument likewise if a checked view has values that are not finite in 0 ... 255, masked
/// ones and those of a view with ignoreNaN excepted.
void checkFinite(const char* function, const char* name, const NFlow::Image& image);

/// Of every pixel of a checked view, row by row: 1 where it is known, 0 where it is masked or ignored. Empty if
/// all are known.
std::vector<float> knownPixels(const NFlow::Image& image);

/// Whether the view shows three dense planes of floats in 0 ... 255: what convert would make.
bool isDense(const NFlow::Image& image);

/// Three planes in 0 ... 255 of a checked view.
CTensor<float> convert(const NFlow::Image& image);

}  // namespace api
