#include "flow_picture/flow_picture.h"

#include <tarvo/tarvo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "evaluation/evaluation.h"
#include "flow_picture/lettering.h"

namespace tool {

namespace {

constexpr float kUnknown = 128;  // of all channels
constexpr double kPi = 3.14159265358979323846;

struct Rgb {
  float red, green, blue;
};

void put(CTensor<float>& picture, int x, int y, const Rgb& colour) {
  picture(x, y, 0) = colour.red;
  picture(x, y, 1) = colour.green;
  picture(x, y, 2) = colour.blue;
}

/// The hues of the standard wheel at full colour, from red (to the right) over yellow (downwards) around.
std::vector<std::array<double, 3>> makeHues() {
  // From one of the six pure colours to the next: the channel that changes, whether it grows, in how many steps.
  constexpr struct {
    int channel;
    bool grows;
    int steps;
  } kParts[] = {{1, true, 15}, {0, false, 6}, {2, true, 4}, {1, false, 11}, {0, true, 13}, {2, false, 6}};
  std::vector<std::array<double, 3>> hues;
  std::array<double, 3> hue{255, 0, 0};
  for (const auto& part : kParts) {
    for (int i = 0; i < part.steps; ++i) {
      const int moved = 255 * i / part.steps;
      hue[part.channel] = part.grows ? moved : 255 - moved;
      hues.push_back(hue);
    }
    hue[part.channel] = part.grows ? 255 : 0;
  }
  return hues;
}

Rgb standardColour(float u, float v, double scale) {
  static const std::vector<std::array<double, 3>> kHues = makeHues();
  constexpr double kBeyond = 0.75;
  const double length = std::hypot(double(u), double(v)) / scale;
  // To the right is the first hue, whatever the sign of a zero.
  const double angle = std::atan2(-(double(v) + 0.0), -(double(u) + 0.0)) / kPi;
  const double at = (angle + 1) / 2 * static_cast<double>(kHues.size() - 1);
  const auto first = static_cast<std::size_t>(at), second = (first + 1) % kHues.size();
  const double share = at - static_cast<double>(first);
  const auto channel = [&](int k) {
    const double hue = ((1 - share) * kHues[first][k] + share * kHues[second][k]) / 255;
    const double value = length <= 1 ? 1 - length * (1 - hue) : hue * kBeyond;
    return static_cast<float>(std::floor(255 * value));
  };
  return {channel(0), channel(1), channel(2)};
}

Rgb colourOf(float u, float v, const Colours& colours) {
  if (!isKnown(u, v)) return {kUnknown, kUnknown, kUnknown};
  if (colours.wheel == Wheel::Standard) return standardColour(u, v, colours.scale);
  Rgb colour{};
  // The steps of flowToImage, whose scale is at full brightness from sqrt(8) times on.
  const auto k = static_cast<float>(0.3535533905932738 / static_cast<float>(colours.scale / std::sqrt(8.0)));
  COpticFlow::cartesianToRGB(k * u, k * v, colour.red, colour.green, colour.blue);
  return colour;
}

/// Of the known vectors of a flow field.
std::vector<double> lengthsOf(const CTensor<float>& flow) {
  std::vector<double> lengths;
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      const float u = flow(x, y, 0), v = flow(x, y, 1);
      if (isKnown(u, v)) lengths.push_back(std::hypot(double(u), double(v)));
    }
  }
  return lengths;
}

std::string pixelText(double scale) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g px", scale);
  return text;
}

}  // namespace

const char* nameOf(Wheel wheel) {
  return wheel == Wheel::Standard ? "standard" : "dark";
}

Wheel wheelNamed(const std::string& name) {
  for (const Wheel wheel : {Wheel::Standard, Wheel::Dark}) {
    if (name == nameOf(wheel)) return wheel;
  }
  throw std::invalid_argument(name + " is not standard or dark");
}

double longestMotion(const CTensor<float>& flow) {
  const std::vector<double> lengths = lengthsOf(flow);
  const double longest = lengths.empty() ? 0 : *std::max_element(lengths.begin(), lengths.end());
  return longest > 0 ? longest : 1;
}

double usualMotion(const CTensor<float>& flow) {
  constexpr double kShare = 0.99;
  std::vector<double> lengths = lengthsOf(flow);
  if (lengths.empty()) return 1;
  const auto rank = std::ceil(kShare * static_cast<double>(lengths.size()));
  const auto usual = lengths.begin() + static_cast<std::ptrdiff_t>(rank) - 1;
  std::nth_element(lengths.begin(), usual, lengths.end());
  return *usual > 0 ? *usual : longestMotion(flow);
}

CTensor<float> colourPicture(const CTensor<float>& flow, const Colours& colours) {
  CTensor<float> picture(flow.sizeX(), flow.sizeY(), 3);
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      put(picture, x, y, colourOf(flow(x, y, 0), flow(x, y, 1), colours));
    }
  }
  return picture;
}

bool drawLegend(CTensor<float>& picture, const Colours& colours) {
  constexpr int kSmallestRadius = 8, kMargin = 4, kLines = 2;
  const std::string lines[kLines] = {pixelText(colours.scale), nameOf(colours.wheel)};
  const int radius = std::min(picture.sizeX(), picture.sizeY()) / 9;
  const int size = std::max(1, radius / 24);  // picture pixels of a letter's pixel
  int width = 2 * radius + 1;
  for (const std::string& line : lines) width = std::max(width, lettersWidth(line, size));
  width += 2 * kMargin;
  const int lineHeight = (kLetterHeight + 3) * size;
  const int height = 2 * radius + 1 + kLines * lineHeight + 2 * kMargin;
  const int left = picture.sizeX() - width, top = picture.sizeY() - height;
  if (radius < kSmallestRadius || left < 0 || top < 0) return false;

  for (int y = top; y < picture.sizeY(); ++y) {
    for (int x = left; x < picture.sizeX(); ++x) put(picture, x, y, {255, 255, 255});
  }
  const int centreX = left + width / 2, centreY = top + kMargin + radius;
  for (int y = -radius; y <= radius; ++y) {
    for (int x = -radius; x <= radius; ++x) {
      if (std::hypot(x, y) > radius) continue;
      const auto pixels = [&](int steps) { return static_cast<float>(steps * colours.scale / radius); };
      put(picture, centreX + x, centreY + y, colourOf(pixels(x), pixels(y), colours));
    }
  }
  int y = centreY + radius + 3 * size;
  for (const std::string& line : lines) {
    drawLetters(picture, line, centreX - lettersWidth(line, size) / 2, y, size);
    y += lineHeight;
  }
  return true;
}

std::vector<std::pair<std::string, std::string>> notesOf(const Colours& colours) {
  return {{"wheel", nameOf(colours.wheel)}, {"scale", pixelText(colours.scale)}};
}

}  // namespace tool
