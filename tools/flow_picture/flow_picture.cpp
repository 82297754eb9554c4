#include "flow_picture/flow_picture.h"

#include <tarvo/tarvo.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "evaluation/evaluation.h"

namespace tool {

double longestMotion(const CTensor<float>& flow) {
  double longest = 0;
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      if (isKnown(flow(x, y, 0), flow(x, y, 1))) {
        longest = std::max(longest, std::hypot(double(flow(x, y, 0)), double(flow(x, y, 1))));
      }
    }
  }
  return longest;
}

CTensor<float> colourPicture(const CTensor<float>& flow, double maxMotion) {
  CTensor<float> marked = flow;
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      if (!isKnown(flow(x, y, 0), flow(x, y, 1))) {
        marked(x, y, 0) = marked(x, y, 1) = std::numeric_limits<float>::quiet_NaN();
      }
    }
  }
  // flowToImage is at full brightness from sqrt(8) * scale on. Any scale does where nothing moves.
  const double scale = maxMotion > 0 ? maxMotion / std::sqrt(8.0) : 1.0;
  CTensor<float> picture;
  COpticFlow::flowToImage(marked, picture, static_cast<float>(scale));
  return picture;
}

bool drawLegend(CTensor<float>& picture) {
  constexpr int kSmallestRadius = 8, kMargin = 4;
  constexpr double kRim = 1.5;  // pixels of white around the disc
  const int radius = std::min(picture.sizeX(), picture.sizeY()) / 9;
  if (radius < kSmallestRadius) {
    return false;
  }
  const int centreX = picture.sizeX() - 1 - kMargin - radius,
            centreY = picture.sizeY() - 1 - kMargin - radius;
  for (int y = -radius; y <= radius; ++y) {
    for (int x = -radius; x <= radius; ++x) {
      const double distance = std::hypot(x, y);
      if (distance > radius) {
        continue;
      }
      const double length = radius - kRim;
      float red = 255, green = 255, blue = 255;
      if (distance <= length) {
        COpticFlow::cartesianToRGB(static_cast<float>(x / length), static_cast<float>(y / length), red, green,
                                   blue);
      }
      picture(centreX + x, centreY + y, 0) = red;
      picture(centreX + x, centreY + y, 1) = green;
      picture(centreX + x, centreY + y, 2) = blue;
    }
  }
  return true;
}

}  // namespace tool
