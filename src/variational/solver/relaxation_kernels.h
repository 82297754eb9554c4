#pragma once

#include <tarvo/solvers.h>

#include <cmath>

#include "device/kernel.h"
#include "variational/solver/solver_kernels.h"

namespace kernels {

/// Relaxes in place the pixels of one colour, (x + y) mod 2 == colour: their neighbours have the other
/// colour. The launch has half as many columns as the plane, one for two pixels, of which it relaxes one.
struct SORiteration_mem_opt_kernel {
  const float *matrix, *rhs;
  float *du, *dv;
  int h, w, colour;
  float omega;
  int p;
  int outW;  // (w + 1) / 2
  int outH;

  TARVO_HOST_DEVICE void operator()(int column, int y) const {
    const int x = 2 * column + ((y + colour) & 1);
    if (x >= w) return;
    const int i = y * p + x;
    const Pair value = relaxed(x, y);
    du[i] = value.first;
    dv[i] = value.second;
  }

  /// The pixel's new values: (1 - omega) times the old ones plus omega times the solution of its 2 x 2 block,
  /// which counts as 0 where the block is singular.
  TARVO_HOST_DEVICE Pair relaxed(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    float ru = rhs[i];
    float rv = rhs[i + n];
    if (y >= 1) decouple(matrix[i + kMatrixNorth * n], i - p, ru, rv);
    if (x >= 1) decouple(matrix[i + kMatrixWest * n], i - 1, ru, rv);
    if (x < w - 1) decouple(matrix[i + kMatrixEast * n], i + 1, ru, rv);
    if (y < h - 1) decouple(matrix[i + kMatrixSouth * n], i + p, ru, rv);
    const float a0 = matrix[i], a2 = matrix[i + kMatrixUV * n], a3 = matrix[i + kMatrixVV * n];
    const float det = a0 * a3 - a2 * a2;
    const bool regular = std::fabs(det) > kLeastDeterminant;  // as in blockSolve
    const float nu = (a3 * ru - a2 * rv) / det;
    const float nv = (a0 * rv - a2 * ru) / det;
    return {fmaf(regular ? nu : 0.0f, omega, (1.0f - omega) * du[i]),
            fmaf(regular ? nv : 0.0f, omega, (1.0f - omega) * dv[i])};
  }
  TARVO_HOST_DEVICE void decouple(float c, int j, float& ru, float& rv) const {
    ru = ru - c * du[j];
    rv = rv - c * dv[j];
  }
};

}  // namespace kernels
