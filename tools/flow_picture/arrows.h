#pragma once

#include <tarvo/CTensor.h>

namespace tool {

/// Draws arrows over a picture of the flow's size x 3, black with a light edge, from every `spacing`-th pixel of every
/// `spacing`-th row to where it moves; the first is half a spacing inside. Unknown motion has none, motion of less than
/// a pixel has no head.
/// @return  how many
long drawArrows(CTensor<float>& picture, const CTensor<float>& flow, int spacing);

}  // namespace tool
