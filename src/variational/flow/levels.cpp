#include "variational/flow/levels.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace variational {

int levelsAbove(int height, int width, float eta, float leastSide) {
  const auto side = static_cast<double>(static_cast<float>(std::min(height, width)));
  const double quotient =
      std::log(static_cast<double>(leastSide) / side) / static_cast<double>(std::log(eta));
  // Also false for not-a-number; compared before any conversion to int.
  if (!(quotient > 0.0 && quotient < static_cast<double>(INT_MAX))) return 0;
  return static_cast<int>(quotient);
}

Level levelOf(int index, int height, int width, float eta) {
  const int clamped = std::max(index, 0);
  const auto sideAt = [eta](int level, int side) {
    return static_cast<int>(std::ceil(std::pow(eta, static_cast<float>(level)) * static_cast<float>(side)));
  };
  Level level{index,
              clamped,
              std::pow(eta, static_cast<float>(clamped)),
              sideAt(clamped, height),
              sideAt(clamped, width),
              sideAt(clamped + 1, height),
              sideAt(clamped + 1, width),
              false};
  level.skipped = level.h == level.hPrev && level.w == level.wPrev;
  return level;
}

}  // namespace variational
