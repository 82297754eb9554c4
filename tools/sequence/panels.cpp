#include "sequence/panels.h"

#include <tarvo/NFlow.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tool {

const std::vector<std::string>& panelNames() {
  static const std::vector<std::string> names{"frame", "color", "error", "occlusion"};  // as in Panel
  return names;
}

std::vector<Panel> panelsNamed(const std::string& text) {
  std::vector<Panel> panels;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find(',', at), text.size());
    const auto& names = panelNames();
    const auto name = std::find(names.begin(), names.end(), text.substr(at, end - at));
    const auto panel = static_cast<Panel>(name - names.begin());
    if (name == names.end() || std::find(panels.begin(), panels.end(), panel) != panels.end()) {
      throw std::invalid_argument(text + " is not one or several of frame,color,error,occlusion, each once");
    }
    panels.push_back(panel);
    at = end + 1;
  }
  return panels;
}

CTensor<float> errorPicture(const CTensor<float>& frame, const CTensor<float>& other,
                            const CTensor<float>& flow) {
  constexpr float kUnknown = 128;
  const CTensor<float> back = NFlow::warp(other, flow);
  CTensor<float> picture(frame.sizeX(), frame.sizeY(), 3);
  for (int y = 0; y < frame.sizeY(); ++y) {
    for (int x = 0; x < frame.sizeX(); ++x) {
      float sum = 0;
      for (int z = 0; z < 3; ++z) sum += std::fabs(frame(x, y, z) - back(x, y, z));
      const float share = std::min(sum / 3 / kWhiteError, 1.f);
      for (int z = 0; z < 3; ++z) {
        picture(x, y, z) =
            std::isfinite(sum) ? 255 * std::clamp(3 * share - static_cast<float>(z), 0.f, 1.f) : kUnknown;
      }
    }
  }
  return picture;
}

CTensor<float> maskPicture(const std::vector<std::uint8_t>& mask, int width, int height) {
  CTensor<float> picture(width, height, 3);
  for (std::size_t k = 0; k < 3 * mask.size(); ++k) picture.data()[k] = mask[k % mask.size()] != 0 ? 255 : 0;
  return picture;
}

CTensor<float> sideBySide(const std::vector<CTensor<float>>& pictures) {
  const int count = static_cast<int>(pictures.size()), columns = count == 4 ? 2 : count;
  const int w = pictures[0].sizeX(), h = pictures[0].sizeY();
  CTensor<float> all(columns * w, count / columns * h, 3);
  for (int k = 0; k < count; ++k) {
    for (int z = 0; z < 3; ++z) {
      for (int y = 0; y < h; ++y) {
        const float* const row = pictures[static_cast<std::size_t>(k)].data() + (z * h + y) * w;
        std::copy(row, row + w, &all(k % columns * w, k / columns * h + y, z));
      }
    }
  }
  return all;
}

}  // namespace tool
