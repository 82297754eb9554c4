#pragma once

#include <vector>

namespace bench {

// Parameters of every measured computation: the defaults.
constexpr float kAlpha = 30.0f, kBeta = 300.0f, kGamma = 5.0f, kEta = 0.95f;
constexpr int kFixedPointIterations = 5, kSolverIterations = 10;

/// One pass of the coarse-to-fine scheme.
struct Pass {
  int index;  ///< pyramid level, 0 at full resolution; below 0 for the passes after it
  int width, height;
  double pixels() const { return static_cast<double>(width) * height; }
  int solverIterations() const { return kSolverIterations * (index < 0 ? 2 : 1); }
};

/// The passes of a picture in their order, coarse to fine.
std::vector<Pass> passesOf(int width, int height);

/// Pixels of all passes together.
double pixelsOf(const std::vector<Pass>& passes);

}  // namespace bench
