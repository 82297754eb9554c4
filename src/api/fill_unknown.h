#pragma once

#include <tarvo/CTensor.h>

#include <vector>

namespace api {

/// Replaces the unknown pixels of every plane, whatever they hold, by a smooth extension of the known ones, which
/// stay as they are: averages of the known values on ever coarser grids, interpolated back. 0 if none is known.
/// @param known  of every pixel, row by row: 1 where it is known, else 0
void fillUnknown(CTensor<float>& picture, const std::vector<float>& known);

}  // namespace api
