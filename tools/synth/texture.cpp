#include "synth/texture.h"

#include <algorithm>
#include <cmath>

namespace synth {

namespace {

constexpr double kTwoPi = 6.283185307179586;

constexpr std::size_t kTurns = 8;

std::array<Point, kTurns> latticeDirections() {
  std::array<Point, kTurns> directions;
  for (std::size_t i = 0; i < kTurns; ++i) {
    const double angle = 0.7 + 0.61 * double(i);
    directions[i] = {std::cos(angle), std::sin(angle)};
  }
  return directions;
}

/// Weights of the four lattice points around a position, t in [0, 1) behind the second.
std::array<double, 4> cubicWeights(double t) {
  const double s = 1 - t;
  return {s * s * s / 6, (4 - 6 * t * t + 3 * t * t * t) / 6, (4 - 6 * s * s + 3 * s * s * s) / 6,
          t * t * t / 6};
}

/// 0 ... 1, rising steeply about v = 0.
double smoothStep(double v) {
  const double t = std::clamp(0.5 + v, 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

double mix(double a, double b, double share) {
  return a + (b - a) * share;
}

Colour mix(const Colour& a, const Colour& b, double share) {
  return {mix(a.red, b.red, share), mix(a.green, b.green, share), mix(a.blue, b.blue, share)};
}

}  // namespace

std::uint32_t hash(std::uint32_t seed, std::int32_t x, std::int32_t y) {
  std::uint32_t v = seed * 0xcb1ab31fu ^ static_cast<std::uint32_t>(x) * 0x8da6b343u ^
                    static_cast<std::uint32_t>(y) * 0xd8163841u;
  v = (v ^ (v >> 16)) * 0x7feb352du;
  v = (v ^ (v >> 15)) * 0x846ca68bu;
  return v ^ (v >> 16);
}

double noise(std::uint32_t seed, Point p, double cell) {
  // The lattice is turned by an angle of its own, so that the lattices of several fields don't line up.
  static const std::array<Point, kTurns> directions = latticeDirections();
  const Point& along = directions[seed % kTurns];
  const double u = (along.x * p.x + along.y * p.y) / cell, v = (along.x * p.y - along.y * p.x) / cell;
  const double left = std::floor(u), top = std::floor(v);
  const std::array<double, 4> wx = cubicWeights(u - left), wy = cubicWeights(v - top);
  double sum = 0;
  for (int j = 0; j < 4; ++j) {
    double row = 0;
    for (int i = 0; i < 4; ++i) {
      const std::uint32_t value =
          hash(seed, static_cast<std::int32_t>(left) + i, static_cast<std::int32_t>(top) + j);
      row += wx[i] * value;
    }
    sum += wy[j] * row;
  }
  constexpr double kSpread = 2.0;  // the splines average over lattice points; this restores the range
  return kSpread * (sum / 2147483648.0 - 1);
}

Colour Texture::at(Point p) const {
  const Colour ground = mix(colours[0], colours[1], smoothStep(1.3 * noise(seed, p, 42)));
  const Colour base = mix(ground, colours[2], smoothStep(1.6 * noise(seed + 1, p, 27) - 0.35));
  double light = 0.30 * noise(seed + 2, p, 19) + 0.32 * noise(seed + 3, p, 8.5) +
                 0.28 * noise(seed + 4, p, 4.5) + 0.22 * noise(seed + 5, p, 3);
  light *= detail;
  if (stripes > 0) {
    const double bend = 5 * noise(seed + 6, p, 60);
    const double across = std::cos(stripeAngle) * p.x + std::sin(stripeAngle) * p.y + bend;
    light += stripes * std::sin(kTwoPi / stripeWavelength * across);
  }
  const double factor = 1 + light;
  const auto limited = [factor](double value) { return std::clamp(value * factor, 0.0, 255.0); };
  return {limited(base.red), limited(base.green), limited(base.blue)};
}

}  // namespace synth
