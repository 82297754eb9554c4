#include "passes.h"

#include <algorithm>
#include <cmath>

namespace bench {
namespace {

constexpr double kLeastSide = 15.0;
constexpr int kFinalPasses = 5;

/// Sides in single precision, as in the scheme.
int sideAt(int level, int side) {
  return static_cast<int>(std::ceil(std::pow(kEta, static_cast<float>(level)) * static_cast<float>(side)));
}

}  // namespace

std::vector<Pass> passesOf(int width, int height) {
  const double quotient =
      std::log(kLeastSide / std::min(width, height)) / static_cast<double>(std::log(kEta));
  const int levels = quotient > 0.0 ? static_cast<int>(quotient) : 0;
  std::vector<Pass> passes;
  for (int index = levels; index >= -kFinalPasses; --index) {
    const int level = std::max(index, 0);
    const Pass pass{index, sideAt(level, width), sideAt(level, height)};
    const bool skipped = pass.width == sideAt(level + 1, width) && pass.height == sideAt(level + 1, height);
    if (!skipped) passes.push_back(pass);
  }
  return passes;
}

double pixelsOf(const std::vector<Pass>& passes) {
  double pixels = 0.0;
  for (const Pass& pass : passes) pixels += pass.pixels();
  return pixels;
}

}  // namespace bench
