#pragma once

#include <tarvo/CTensor.h>

namespace tool {

/// What the flow leaves unexplained, 0 (nothing) to about 1 (the pictures have nothing in common): mean
/// difference of image 1 and image 2 brought back by the flow, over the mean difference of image 1 and the same
/// picture read from other places; both over the pixels whose flow stays in the picture.
double unexplained(const CTensor<float>& image1, const CTensor<float>& image2, const CTensor<float>& flow);

/// Whether the scene changes between the pictures.
bool isCut(const CTensor<float>& image1, const CTensor<float>& image2, const CTensor<float>& flow);

}  // namespace tool
