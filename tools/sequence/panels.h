#pragma once

#include <tarvo/CTensor.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

/// A picture of a frame, beside which others of the same frame may stand.
enum class Panel {
  Frame,     ///< the frame itself
  Colour,    ///< its motion in colours
  Error,     ///< what the flow leaves unexplained
  Occlusion  ///< what of it is hidden in the other frame
};
/// "frame", "color", "error", "occlusion"
const std::vector<std::string>& panelNames();
/// Throws std::invalid_argument for a text that is not one to four different names with commas between them.
std::vector<Panel> panelsNamed(const std::string& text);

/// The mean over the channels of |frame - other brought back by the flow|: black 0, over red and yellow, white
/// kWhiteError and more; grey where the flow leads outside or is unknown. All w x h, in grey levels.
CTensor<float> errorPicture(const CTensor<float>& frame, const CTensor<float>& other,
                            const CTensor<float>& flow);
constexpr float kWhiteError = 64;

/// What a mask has set is white, all else black.
CTensor<float> maskPicture(const std::vector<std::uint8_t>& mask, int width, int height);

/// Pictures of one size in a row, from left to right; four of them in two rows.
CTensor<float> sideBySide(const std::vector<CTensor<float>>& pictures);

}  // namespace tool
