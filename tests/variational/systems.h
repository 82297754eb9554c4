#pragma once

#include <tarvo/solvers.h>

#include <limits>

#include "support/device_planes.h"
#include "variational/solver/solver_kernels.h"

/// A symmetric positive definite system like those of a fixed-point step: couplings from diffusivities
/// between 0.1 and `strength`, planes that nothing may read filled with not-a-number.
struct TestSystem {
  Planes matrix, rhs, start;

  TestSystem(int h, int w, std::uint32_t seed, float strength = 10.0f)
      : matrix(h, w, 12, std::numeric_limits<float>::quiet_NaN()),
        rhs(randomPlanes(h, w, 2, seed + 1, -20.0f, 20.0f)),
        start(randomPlanes(h, w, 2, seed + 2, -1.0f, 1.0f)) {
    const Planes diffX = randomPlanes(h, w, 1, seed + 3, 0.1f, strength);
    const Planes diffY = randomPlanes(h, w, 1, seed + 4, 0.1f, strength);
    const Planes block = randomPlanes(h, w, 3, seed + 5, 0.2f, 3.0f);
    forPixels(h, w, [&](int x, int y) {
      const float north = y > 0 ? diffY.at(x, y - 1) : 0.0f;
      const float west = x > 0 ? diffX.at(x - 1, y) : 0.0f;
      const float east = x < w - 1 ? diffX.at(x, y) : 0.0f;
      const float south = y < h - 1 ? diffY.at(x, y) : 0.0f;
      const float sum = north + west + east + south;
      matrix.at(x, y, kMatrixUU) = block.at(x, y, 0) + sum;
      matrix.at(x, y, kMatrixVV) = block.at(x, y, 1) + sum;
      // Smaller than both diagonal entries.
      const float mixed = 0.3f * std::min(block.at(x, y, 0), block.at(x, y, 1)) * (block.at(x, y, 2) - 1.6f);
      matrix.at(x, y, kMatrixUV) = matrix.at(x, y, kMatrixVU) = mixed;
      matrix.at(x, y, kMatrixNorth) = -north;
      matrix.at(x, y, kMatrixWest) = -west;
      matrix.at(x, y, kMatrixEast) = -east;
      matrix.at(x, y, kMatrixSouth) = -south;
    });
  }
  int h() const { return matrix.h; }
  int w() const { return matrix.w; }
};

/// The system in the five planes of kernels::SystemLayout::once, not-a-number in the rest of the stack.
inline TestSystem storedOnce(const TestSystem& system) {
  constexpr MatrixPlane kOrder[] = {kMatrixUU, kMatrixVU, kMatrixVV, kMatrixEast, kMatrixSouth};
  TestSystem once = system;
  for (int plane = 0; plane < 12; ++plane) {
    forPixels(system.h(), system.w(), [&](int x, int y) {
      once.matrix.at(x, y, plane) = plane < kernels::SystemLayout::kOncePlanes
                                        ? system.matrix.at(x, y, kOrder[plane])
                                        : std::numeric_limits<float>::quiet_NaN();
    });
  }
  return once;
}

/// The same on the device, with the solver's work vectors.
struct DeviceSystem {
  int h, w;
  DevicePlanes matrix, rhs, x, r, z, spare, search, q;

  explicit DeviceSystem(const TestSystem& system, int padding = DevicePlanes::kPadding)
      : h(system.h()),
        w(system.w()),
        matrix(system.matrix, padding),
        rhs(system.rhs, padding),
        x(system.start, padding),
        r(h, w, 2, padding),
        z(h, w, 2, padding),
        spare(h, w, 2, padding),
        search(h, w, 2, padding),
        q(h, w, 2, padding) {}

  CGtmp cg() const { return {r.get(), z.get(), spare.get(), search.get(), q.get()}; }
  void solve(int iterations) const {
    gPCG(matrix.get(), rhs.get(), x.get(), x.plane(1), h, w, x.p(), iterations, cg());
  }
  /// Squared norm of what is left of the system.
  double residual() const {
    const DevicePlanes left(h, w, 2, x.p() - w);
    return static_cast<double>(
        gComputeResidual(matrix.get(), rhs.get(), x.get(), x.plane(1), left.get(), h, w, x.p()));
  }
};
