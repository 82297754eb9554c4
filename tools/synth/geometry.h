#pragma once

#include <vector>

/// Positions, motions and outlines of a scene. Positions are in pixels, x to the right and y downwards; the
/// centre of pixel (i, j) is the position (i, j).
namespace synth {

struct Point {
  double x, y;
};

/// A rotation by `angle` (radians, from +x towards +y) and a magnification by `zoom` about `centre`, followed
/// by a shift: where a point of frame 1 lies in frame 2.
class Motion {
 public:
  Motion(Point centre, Point shift, double angle = 0, double zoom = 1);

  Point apply(Point p) const;
  Point inverse(Point p) const;

  /// Where points are after so much of the motion, 1 being all of it: turn, shift and the logarithm of the
  /// magnification grow with it.
  Motion part(double share) const;

 private:
  Point centre_, shift_;
  double angle_, zoom_;
  double cosine_, sine_, squaredZoom_;  // the first two carry the zoom
};

/// An outline with a soft edge.
class Shape {
 public:
  /// The whole plane.
  static Shape everywhere();
  static Shape ellipse(Point centre, double radiusX, double radiusY, double angle = 0);
  /// A box with rounded corners, given by its half sides.
  static Shape box(Point centre, double halfX, double halfY, double corner, double angle = 0);
  /// A disc whose outline waves `lobes` times by the part `depth` (below 0.4) of the radius.
  static Shape blob(Point centre, double radius, int lobes, double depth, double phase);

  /// Share of the layer that is seen at p: 1 inside, 0 outside, falling smoothly over kEdgeWidth pixels about
  /// the outline, where it is 0.5.
  double coverage(Point p) const;

  static constexpr double kEdgeWidth = 1.5;  // pixels

 private:
  enum class Kind { Everywhere, Ellipse, Box, Blob };
  Shape(Kind kind, Point centre, double radiusX, double radiusY, double angle);
  double distance(Point p) const;

  Kind kind_;
  Point centre_;
  double radiusX_, radiusY_;
  double cosine_, sine_, phase_;
  double corner_ = 0, depth_ = 0;
  int lobes_ = 0;
  double reach_;  // nothing of the shape is farther from the centre
};

}  // namespace synth
