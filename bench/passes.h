#pragma once

#include <tarvo/flow.h>

#include <vector>

namespace bench {

// Parameters of every measured computation: the defaults.
constexpr NFlow::Parameters kDefaults;
constexpr float kAlpha = kDefaults.alpha, kBeta = kDefaults.beta, kGamma = kDefaults.gamma,
                kEta = kDefaults.eta;
constexpr int kFixedPointIterations = kDefaults.fixedPointIterations,
              kSolverIterations = kDefaults.solverIterations;

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
