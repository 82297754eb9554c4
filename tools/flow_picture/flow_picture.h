#pragma once

#include <tarvo/CTensor.h>

namespace tool {

/// The greatest length of a known vector of a flow field [pixels]; 0 if there is none.
double longestMotion(const CTensor<float>& flow);

/// Colours a flow field: the hue is the direction, the brightness the length, full from `maxMotion` pixels
/// on; unknown vectors get the library's colour for not-a-number. Values 0 ... 255.
CTensor<float> colourPicture(const CTensor<float>& flow, double maxMotion);

/// Draws the colours of all directions as a disc in the lower right corner: its rim is `maxMotion` pixels.
/// False, and nothing is drawn, if the picture is too small for it.
bool drawLegend(CTensor<float>& picture);

}  // namespace tool
