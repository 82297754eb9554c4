#pragma once

#include <tarvo/CTensor.h>

#include <string>
#include <utility>
#include <vector>

namespace tool {

/// How a motion becomes a colour. In both the hue is the direction; unknown motion is grey, which is on neither.
enum class Wheel {
  Standard,  ///< the 55 hues that flow fields are usually published with: still is white, colours are fuller up
             ///< to the scale and darker beyond it
  Dark       ///< COpticFlow::flowToImage: still is black, colours are brighter up to the scale
};
/// "standard" or "dark"
const char* nameOf(Wheel wheel);
/// Throws std::invalid_argument, naming both, for another name.
Wheel wheelNamed(const std::string& name);

/// The colours of a picture.
struct Colours {
  Wheel wheel = Wheel::Standard;
  double scale = 1;  ///< the length with the fullest colours [pixels], above 0
};

/// A scale for a flow field [pixels]: the greatest length of a known vector, and the length that 99 of 100 of them
/// do not exceed (the greatest where that is 0), so that a few wild vectors do not take the colours of all others.
/// 1 where nothing is known to move.
double longestMotion(const CTensor<float>& flow);
double usualMotion(const CTensor<float>& flow);

/// Colours a flow field, in whole values 0 ... 255.
CTensor<float> colourPicture(const CTensor<float>& flow, const Colours& colours);

/// Draws a white field into the lower right corner: the colours of all motions up to the scale as a disc, the
/// scale, e.g. "20 px", and the wheel's name. False, and nothing is drawn, if the picture is too small for it.
bool drawLegend(CTensor<float>& picture, const Colours& colours);

/// What a picture file tells of its colours, name and value: "wheel", "scale".
std::vector<std::pair<std::string, std::string>> notesOf(const Colours& colours);

}  // namespace tool
