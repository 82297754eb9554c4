#include <tarvo/COpticFlow.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr float kUnknown = 1e9f;  // components of a reference from here on mean unknown motion

/// Angle in degrees between the space-time directions (u, v, 1) and (ur, vr, 1). Sums of products in single
/// precision, the rest in double.
double spaceTimeAngle(float u, float v, float ur, float vr) {
  constexpr double kDegrees = 57.29577866666166;  // 180 / 3.1415927
  const float product = u * ur + v * vr;
  const float square = u * u + v * v;
  const float squareReference = ur * ur + vr * vr;
  float c = static_cast<float>((product + 1.0) / std::sqrt((squareReference + 1.0) * (square + 1.0)));
  if (c > 1) c = 1;
  if (c < -1) c = -1;
  return std::acos(c) * kDegrees;
}

/// Difference of two directions, 0 ... pi.
float directionDifference(float u, float v, float ur, float vr) {
  constexpr float kBelowPi = 3.1415925f;
  constexpr float kTurn = 6.283185f;
  float d = static_cast<float>(std::atan2(static_cast<double>(v), static_cast<double>(u)) -
                               std::atan2(static_cast<double>(vr), static_cast<double>(ur)));
  if (d > kBelowPi) d -= kTurn;
  if (d < -kBelowPi) d += kTurn;
  return std::abs(d);
}

}  // namespace

float COpticFlow::angularError(CTensor<float>& flow, CTensor<float>& reference) {
  float sum = 0;
  int count = 0;
  const int w = flow.sizeZ() < 2 || reference.sizeZ() < 2 ? 0 : std::min(flow.sizeX(), reference.sizeX());
  const int h = std::min(flow.sizeY(), reference.sizeY());
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const float ur = reference(x, y, 0);
      const float vr = reference(x, y, 1);
      if (std::abs(ur) > kUnknown || std::abs(vr) > kUnknown) continue;
      sum = static_cast<float>(sum + spaceTimeAngle(flow(x, y, 0), flow(x, y, 1), ur, vr));
      ++count;
    }
  }
  return count > 0 ? sum / static_cast<float>(count) : std::numeric_limits<float>::quiet_NaN();
}

float aae(CTensor<float> flow, CTensor<float> reference) {
  const int n = flow.sizeX() * flow.sizeY();
  if (flow.sizeZ() < 2 || n == 0) return std::numeric_limits<float>::quiet_NaN();
  const float* f = flow.data();
  const float* r = reference.data();
  const int covered = std::clamp(reference.size() - n, 0, n);
  float sum = 0;
  for (int i = 0; i < covered; ++i) {
    if (r[i] >= kUnknown || r[n + i] >= kUnknown) continue;
    sum += directionDifference(f[i], f[n + i], r[i], r[n + i]);
  }
  return sum / static_cast<float>(n) * 180 / 3.1415925f;
}
