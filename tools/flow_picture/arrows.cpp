#include "flow_picture/arrows.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "evaluation/evaluation.h"

namespace tool {

namespace {

struct Stroke {
  double x, y, dx, dy;  // from where, how far [pixels]
};

/// Distance of a position from a stroke.
double distance(const Stroke& stroke, double x, double y) {
  const double square = stroke.dx * stroke.dx + stroke.dy * stroke.dy;
  const double along = (x - stroke.x) * stroke.dx + (y - stroke.y) * stroke.dy;
  const double share = square > 0 ? std::clamp(along / square, 0., 1.) : 0;
  return std::hypot(x - stroke.x - share * stroke.dx, y - stroke.y - share * stroke.dy);
}

/// Blends a grey line of this half width into the picture; its edge falls off over a pixel. It visits the pixels
/// beside the stroke only, along its longer side.
void draw(CTensor<float>& picture, const Stroke& stroke, double halfWidth, float grey) {
  const bool upright = std::fabs(stroke.dy) > std::fabs(stroke.dx);
  const double from = upright ? stroke.y : stroke.x, length = upright ? stroke.dy : stroke.dx;
  const double across = upright ? stroke.x : stroke.y, slope = upright ? stroke.dx : stroke.dy;
  const int longSide = upright ? picture.sizeY() : picture.sizeX();
  const int shortSide = upright ? picture.sizeX() : picture.sizeY();
  const double reach = halfWidth + 0.5, beside = reach * std::sqrt(2.) + 1;
  const auto within = [](double value, int size) {
    return static_cast<int>(std::clamp(value, -1., double(size)));
  };
  const int first = std::max(0, within(std::ceil(std::min(from, from + length) - reach), longSide));
  const int last = std::min(longSide - 1, within(std::max(from, from + length) + reach, longSide));
  for (int i = first; i <= last; ++i) {
    const double share = length != 0 ? std::clamp((i - from) / length, 0., 1.) : 0;
    const double middle = across + share * slope;
    const int low = std::max(0, within(std::ceil(middle - beside), shortSide));
    const int high = std::min(shortSide - 1, within(middle + beside, shortSide));
    for (int j = low; j <= high; ++j) {
      const int x = upright ? j : i, y = upright ? i : j;
      const auto cover = static_cast<float>(std::clamp(reach - distance(stroke, x, y), 0., 1.));
      for (int z = 0; z < 3; ++z) picture(x, y, z) += cover * (grey - picture(x, y, z));
    }
  }
}

/// The shaft, and the two strokes of the head.
void addArrow(std::vector<Stroke>& strokes, double x, double y, double u, double v) {
  constexpr double kHeadShare = 0.35, kLongestHead = 6, kSpread = 0.45;  // [-, pixels, radians]
  strokes.push_back({x, y, u, v});
  const double length = std::hypot(u, v);
  if (length < 1) return;
  const double head = std::min(kHeadShare * length, kLongestHead) / length;
  for (const double turn : {-kSpread, kSpread}) {
    const double cosine = head * std::cos(turn), sine = head * std::sin(turn);
    strokes.push_back({x + u, y + v, -cosine * u + sine * v, -sine * u - cosine * v});
  }
}

}  // namespace

long drawArrows(CTensor<float>& picture, const CTensor<float>& flow, int spacing) {
  constexpr double kHalfWidth = 0.55, kEdge = 0.7;
  constexpr float kBlack = 0, kLight = 255;
  std::vector<Stroke> strokes;
  long arrows = 0;
  for (int y = spacing / 2; y < flow.sizeY(); y += spacing) {
    for (int x = spacing / 2; x < flow.sizeX(); x += spacing) {
      if (!isKnown(flow(x, y, 0), flow(x, y, 1))) continue;
      addArrow(strokes, x, y, flow(x, y, 0), flow(x, y, 1));
      ++arrows;
    }
  }
  for (const Stroke& stroke : strokes) draw(picture, stroke, kHalfWidth + kEdge, kLight);
  for (const Stroke& stroke : strokes) draw(picture, stroke, kHalfWidth, kBlack);
  return arrows;
}

}  // namespace tool
