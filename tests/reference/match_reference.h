#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "support/planes.h"

/// The search of one point as a block of 256 lanes that meet at barriers, each with one window column, and
/// two trees of minima: the definition of the second distance.
namespace reference {

struct MatchInput {
  Planes imageA, imageB, hogA, hogB, confidence, energyA, energyB;
  float meanConfidence = 0.0f;
};

struct MatchResult {
  bool searched = false;
  int x = 0, y = 0;
  float best = 0.0f, second = 0.0f;
};

inline double distanceOf(const MatchInput& in, int ax, int ay, int x, int y) {
  const double eA = in.energyA.at(ax, ay);
  const double eB = in.energyB.at(x, y);
  if (eB > 2 * eA || eA > 2 * eB) return 1e9;
  float colour = 0.0f;
  for (int c = 0; c < 3; ++c) {
    const float d = in.imageA.at(ax, ay, c) - in.imageB.at(x, y, c);
    colour = colour + d * d;
  }
  if (colour > 300.0f) return 1e9;
  float sum = 0.0f;
  for (int b = 0; b < 15; ++b) {
    for (int dy = -4; dy <= 4; dy += 4) {
      for (int dx = -4; dx <= 4; dx += 4) {
        const float d = in.hogA.at(ax + dx, ay + dy, b) - in.hogB.at(x + dx, y + dy, b);
        sum = sum + d * d;
      }
    }
  }
  return sum;
}

inline float treeMinimum(std::vector<float> values) {
  for (std::size_t half = 128; half > 0; half /= 2) {
    for (std::size_t t = 0; t < half; ++t) values[t] = std::min(values[t], values[t + half]);
  }
  return values[0];
}

inline MatchResult matchPoint(const MatchInput& in, int ax, int ay, bool gated) {
  MatchResult result;
  if (gated) {
    const float value = in.confidence.at(ax, ay);
    const double corner =
        std::isnan(value) ? 0.0 : std::trunc(std::min(std::max(value, -2147483648.0f), 2147483520.0f));
    if (corner < static_cast<double>(in.meanConfidence) * 0.125) return result;
  }
  if (ax == 0 || ay == 0) return result;
  result.searched = true;
  const int w = in.imageA.w, h = in.imageA.h;
  std::vector<float> best(256, 1e9f), second(256, 1e9f);
  std::vector<int> bestX(256, 0), bestY(256, 0);
  for (std::size_t t = 0; t < 256; ++t) {
    const int x = std::max(12, ax - 80) + static_cast<int>(t);
    if (x > std::min(ax + 80, w - 13)) continue;
    for (int y = std::max(12, ay - 80); y <= std::min(ay + 80, h - 13); ++y) {
      const auto d = static_cast<float>(distanceOf(in, ax, ay, x, y));
      if (best[t] > d) {
        second[t] = best[t];
        best[t] = d;
        bestX[t] = x;
        bestY[t] = y;
      } else if (second[t] > d) {
        second[t] = d;
      }
    }
  }
  result.best = treeMinimum(best);
  std::vector<float> offered = best;
  for (std::size_t t = 256; t-- > 0;) {
    if (best[t] != result.best) continue;
    result.x = bestX[t];  // the first of these columns writes last
    result.y = bestY[t];
    offered[t] = second[t];
  }
  result.second = treeMinimum(offered);
  return result;
}

}  // namespace reference
