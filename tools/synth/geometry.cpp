#include "synth/geometry.h"

#include <algorithm>
#include <cmath>

namespace synth {

Motion::Motion(Point centre, Point shift, double angle, double zoom)
    : centre_(centre),
      shift_(shift),
      angle_(angle),
      zoom_(zoom),
      cosine_(zoom * std::cos(angle)),
      sine_(zoom * std::sin(angle)),
      squaredZoom_(zoom * zoom) {}

Point Motion::apply(Point p) const {
  const double x = p.x - centre_.x, y = p.y - centre_.y;
  return {centre_.x + cosine_ * x - sine_ * y + shift_.x, centre_.y + sine_ * x + cosine_ * y + shift_.y};
}

Point Motion::inverse(Point p) const {
  const double x = (p.x - shift_.x - centre_.x) / squaredZoom_,
               y = (p.y - shift_.y - centre_.y) / squaredZoom_;
  return {centre_.x + cosine_ * x + sine_ * y, centre_.y - sine_ * x + cosine_ * y};
}

Motion Motion::part(double share) const {
  return Motion(centre_, {share * shift_.x, share * shift_.y}, share * angle_, std::pow(zoom_, share));
}

Shape::Shape(Kind kind, Point centre, double radiusX, double radiusY, double angle)
    : kind_(kind),
      centre_(centre),
      radiusX_(radiusX),
      radiusY_(radiusY),
      cosine_(std::cos(angle)),
      sine_(std::sin(angle)),
      phase_(angle),
      reach_(std::hypot(radiusX, radiusY) + kEdgeWidth) {}

Shape Shape::everywhere() {
  return Shape(Kind::Everywhere, {0, 0}, 0, 0, 0);
}

Shape Shape::ellipse(Point centre, double radiusX, double radiusY, double angle) {
  return Shape(Kind::Ellipse, centre, radiusX, radiusY, angle);
}

Shape Shape::box(Point centre, double halfX, double halfY, double corner, double angle) {
  Shape shape(Kind::Box, centre, halfX, halfY, angle);
  shape.corner_ = std::min({corner, halfX, halfY});
  return shape;
}

Shape Shape::blob(Point centre, double radius, int lobes, double depth, double phase) {
  Shape shape(Kind::Blob, centre, radius, radius, phase);
  shape.lobes_ = lobes;
  shape.depth_ = depth;
  return shape;
}

double Shape::coverage(Point p) const {
  if (kind_ == Kind::Everywhere) {
    return 1;
  }
  const Point q{p.x - centre_.x, p.y - centre_.y};
  if (q.x * q.x + q.y * q.y > reach_ * reach_) {
    return 0;
  }
  const double t = std::clamp(0.5 - distance(q) / kEdgeWidth, 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

/// Distance of a position relative to the centre from the outline, negative inside; exact for the box, to
/// first order near the outline for the others.
double Shape::distance(Point p) const {
  const double x = cosine_ * p.x + sine_ * p.y, y = cosine_ * p.y - sine_ * p.x;
  switch (kind_) {
    case Kind::Ellipse: {
      const double f = std::hypot(x / radiusX_, y / radiusY_);
      const double slope = std::hypot(x / (radiusX_ * radiusX_), y / (radiusY_ * radiusY_));
      return f > 0 ? (f - 1) * f / slope : -std::min(radiusX_, radiusY_);
    }
    case Kind::Box: {
      const double dx = std::abs(x) - radiusX_ + corner_, dy = std::abs(y) - radiusY_ + corner_;
      const double outside = std::hypot(std::max(dx, 0.0), std::max(dy, 0.0));
      return outside + std::min(std::max(dx, dy), 0.0) - corner_;
    }
    case Kind::Blob: {
      const double radius = std::hypot(p.x, p.y);
      const double angle = lobes_ * std::atan2(p.y, p.x) + phase_;
      const double outline = radiusX_ * (1 + depth_ * std::sin(angle));
      const double slope = radiusX_ * depth_ * lobes_ * std::cos(angle) / std::max(radius, 1.0);
      return (radius - outline) / std::sqrt(1 + slope * slope);
    }
    case Kind::Everywhere:
      break;
  }
  return -1;
}

}  // namespace synth
