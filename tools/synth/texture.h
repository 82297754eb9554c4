#pragma once

#include <array>
#include <cstdint>

#include "synth/geometry.h"

namespace synth {

/// Red, green, blue in 0 ... 255.
struct Colour {
  double red, green, blue;
};

/// A coloured surface: a smooth function of continuous positions without a period.
///
/// Two colour fields of large patches mix the three colours; the brightness carries detail at several scales
/// and, if wanted, stripes bent by a slow field. The finest detail is 3 pixels wide and interpolated by cubic
/// B-splines, so that almost nothing is left beyond half a period per pixel: sampling it at pixel centres
/// gives no aliasing, also when turned or magnified a little.
struct Texture {
  std::uint32_t seed;
  std::array<Colour, 3> colours;
  double detail = 0.30;         // share of the brightness that the detail changes
  double stripes = 0;           // the same for the stripes
  double stripeWavelength = 0;  // pixels
  double stripeAngle = 0;       // radians, direction across the stripes

  Colour at(Point p) const;
};

/// Smooth random field with values of about -1 ... 1 and details of `cell` pixels, the same at every call.
double noise(std::uint32_t seed, Point p, double cell);

/// A whole number that looks random, the same for the same arguments.
std::uint32_t hash(std::uint32_t seed, std::int32_t x, std::int32_t y);

}  // namespace synth
