#include <tarvo/COpticFlow.h>
#include <tarvo/NMath.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "device/report.h"

namespace {

constexpr float kPi = NMath::Pi;
constexpr double kPiDouble = NMath::Pi;

/// A piece of the colour wheel over the half angle, from colour `from` at `start` to colour `to` at its end.
struct Sector {
  double start, width;
  double from[3], to[3];
};

constexpr Sector kWheel[] = {
    {0, kPiDouble / 8, {255, 0, 0}, {255, 0, 255}},
    {kPiDouble / 8, kPiDouble / 8, {255, 0, 255}, {64, 64, 255}},
    {kPiDouble / 4, kPiDouble / 8, {64, 64, 255}, {0, 255, 255}},
    {3 * kPiDouble / 8, kPiDouble / 8, {0, 255, 255}, {0, 255, 0}},
    {kPiDouble / 2, kPiDouble / 4, {0, 255, 0}, {255, 255, 0}},
    {3 * kPiDouble / 4, kPiDouble / 4, {255, 255, 0}, {255, 0, 0}},
};
constexpr int kSectors = sizeof kWheel / sizeof kWheel[0];

constexpr float kNoDirection = 128;

struct Color {
  float channel[3];  // red, green, blue
};

/// Angle from +x towards +y, 0 ... 2 pi; the upper end is reached by rounding.
float direction(float x, float y) {
  if (x == 0) return y >= 0 ? kPi / 2 : 3 * kPi / 2;
  const float angle = std::atan(y / x);
  if (x < 0) return angle + kPi;
  return y >= 0 ? angle : angle + 2 * kPi;
}

Color vectorColor(float x, float y) {
  const float half = direction(x, y) / 2;
  if (std::isnan(x) || std::isnan(y) || std::isnan(half)) return {{kNoDirection, kNoDirection, kNoDirection}};
  const float brightness = std::min(std::sqrt(x * x + y * y), 1.0F);
  int index = 0;
  while (index + 1 < kSectors && half >= kWheel[index + 1].start) ++index;
  const Sector& sector = kWheel[index];
  const float t = static_cast<float>((half - sector.start) / sector.width);
  const float s = 1 - t;
  Color color{};
  for (int i = 0; i < 3; ++i) {
    const double value = (s * sector.from[i] + t * sector.to[i]) * brightness;
    color.channel[i] = static_cast<float>(std::clamp(static_cast<int>(value), 0, 255));
  }
  return color;
}

}  // namespace

void COpticFlow::cartesianToRGB(float x, float y, float& red, float& green, float& blue) {
  const Color color = vectorColor(x, y);
  red = color.channel[0];
  green = color.channel[1];
  blue = color.channel[2];
}

void COpticFlow::flowToImage(CTensor<float>& flow, CTensor<float>& image, float scale) {
  const int w = flow.sizeX();
  const int h = flow.sizeY();
  if (flow.sizeZ() < 2 && w > 0 && h > 0) {
    report::print("flowToImage: a flow has 2 planes, not %d\n", flow.sizeZ());
    return;
  }
  // 1 / sqrt(8): full brightness is reached at length sqrt(8) * scale.
  const float k = static_cast<float>(0.3535533905932738 / scale);
  CTensor<float> result(w, h, 3);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const Color color = vectorColor(k * flow(x, y, 0), k * flow(x, y, 1));
      for (int z = 0; z < 3; ++z) result(x, y, z) = color.channel[z];
    }
  }
  image = std::move(result);
}
