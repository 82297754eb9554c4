#pragma once

#include "device/report.h"

namespace match {

/// Pixels that reports show, where the picture has them: (kShownX, kShownY) and, of the second picture, also
/// (kOtherX, kOtherY).
constexpr int kShownX = 108, kShownY = 108, kOtherX = 72, kOtherY = 206;

/// Prints the descriptor energies of these pixels; energy(picture, x, y) reads one, of picture 1 or 2.
template <class Energy>
void printEnergies(int w, int h, const Energy& energy) {
  if (w <= kShownX || h <= kOtherY) return;
  const auto at = [&](int picture, int x, int y) { return static_cast<double>(energy(picture, x, y)); };
  report::print("108,108: E1=%f E2=%f E2'=%f \n", at(1, kShownX, kShownY), at(2, kShownX, kShownY),
                at(2, kOtherX, kOtherY));
}

}  // namespace match
