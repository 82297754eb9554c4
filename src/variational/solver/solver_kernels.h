#pragma once

#include <tarvo/solvers.h>

#include "device/kernel.h"
#include "variational/elementwise_kernels.h"

namespace kernels {

/// Two results of one pixel, one for each equation.
struct Pair {
  float first, second;
};

/// A block is regular where |det| > 0.0001 in double precision. The nearest float, 0.0001f, lies below that
/// and the next one above, so that a comparison in single precision says the same.
constexpr float kLeastDeterminant = 0.0001f;
static_assert(static_cast<double>(kLeastDeterminant) < 0.0001, "no float lies between the two");

/// Inverse of the pixel's 2 x 2 block times (r1, r2), or (r1, r2) where |det| <= 0.0001 or is not a number.
TARVO_HOST_DEVICE Pair blockSolve(float a0, float a1, float a3, float r1, float r2) {
  const float det = a0 * a3 - a1 * a1;
  const bool regular = std::fabs(det) > kLeastDeterminant;
  const float z1 = (a3 * r1 - a1 * r2) / det;
  const float z2 = (a0 * r2 - a1 * r1) / det;
  return {regular ? z1 : r1, regular ? z2 : r2};
}

/// Where the entries of a pixel's equations stand: offsets from its element of the matrix's first plane,
/// which is that of UU. Planes have n = h * p floats.
struct SystemLayout {
  int vu, uv, vv, north, west, east, south;

  /// The twelve planes of the public layout (MatrixPlane), as MakeMatrix_kernel fills them.
  TARVO_HOST_DEVICE static SystemLayout full(int n) {
    return {kMatrixVU * n,   kMatrixUV * n,   kMatrixVV * n,   kMatrixNorth * n,
            kMatrixWest * n, kMatrixEast * n, kMatrixSouth * n};
  }
  /// Five planes: UU, the mixed entry, VV, east and south. The coupling of two neighbours stands once, as
  /// south of the upper or east of the left one.
  TARVO_HOST_DEVICE static SystemLayout once(int n, int p) {
    return {n, n, 2 * n, 4 * n - p, 3 * n - 1, 3 * n, 4 * n};
  }
  static constexpr int kOncePlanes = 5;
};

/// Product with the system matrix: the block, then the neighbours north, west, east, south, every step fused.
/// secondOff is the offset of the off-diagonal entry in the second equation.
struct MatrixProduct {
  const float *matrix, *d1, *d2;
  int h, w, p;
  float* out;
  SystemLayout layout;
  int secondOff;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    float out1 = fmaf(d1[i], matrix[i], d2[i] * matrix[i + layout.uv]);
    float out2 = fmaf(d1[i], matrix[i + secondOff], d2[i] * matrix[i + layout.vv]);
    if (y >= 1) couple(matrix[i + layout.north], i - p, out1, out2);
    if (x >= 1) couple(matrix[i + layout.west], i - 1, out1, out2);
    if (x < w - 1) couple(matrix[i + layout.east], i + 1, out1, out2);
    if (y < h - 1) couple(matrix[i + layout.south], i + p, out1, out2);
    out[i] = out1;
    out[i + n] = out2;
  }
  TARVO_HOST_DEVICE void couple(float c, int j, float& out1, float& out2) const {
    out1 = fmaf(c, d1[j], out1);
    out2 = fmaf(c, d2[j], out2);
  }
};

/// r = rhs - matrix * (du, dv). The block's products are fused; a coupling is a product, then a subtraction.
struct MatrixResidual {
  const float *matrix, *rhs, *du, *dv;
  int h, w, p;
  float* r;
  SystemLayout layout;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    float r1 = rhs[i] - fmaf(du[i], matrix[i], dv[i] * matrix[i + layout.uv]);
    float r2 = rhs[i + n] - fmaf(du[i], matrix[i + layout.vu], dv[i] * matrix[i + layout.vv]);
    if (y >= 1) decouple(matrix[i + layout.north], i - p, r1, r2);
    if (x >= 1) decouple(matrix[i + layout.west], i - 1, r1, r2);
    if (x < w - 1) decouple(matrix[i + layout.east], i + 1, r1, r2);
    if (y < h - 1) decouple(matrix[i + layout.south], i + p, r1, r2);
    r[i] = r1;
    r[i + n] = r2;
  }
  TARVO_HOST_DEVICE void decouple(float c, int j, float& r1, float& r2) const {
    r1 = r1 - c * du[j];
    r2 = r2 - c * dv[j];
  }
};

struct applyBlockJacobiPreconditioner_kernel {
  const float *matrix, *r;
  float* z;
  int h, w, p;
  SystemLayout layout;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const Pair pair = blockSolve(matrix[i], matrix[i + layout.vu], matrix[i + layout.vv], r[i], r[i + n]);
    z[i] = pair.first;
    z[i + n] = pair.second;
  }
};

struct applyJacobiPreconditioner_kernel {
  const float *matrix, *r;
  float* z;
  int h, w, p;

  TARVO_HOST_DEVICE static float divisor(float diagonal) {
    return std::fabs(static_cast<double>(diagonal)) < 0.000001 ? 1.0f : diagonal;
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    z[i] = r[i] / divisor(matrix[i]);
    z[i + n] = r[i + n] / divisor(matrix[i + kMatrixVV * n]);
  }
};

/// s = root of the diagonal entry of both equations, 1 below kLeastScaled.
struct DiagonalRoots {
  const float* matrix;
  float* s;
  int h, w, p;
  static constexpr float kLeastScaled = 10.0f;

  TARVO_HOST_DEVICE static float root(float diagonal) {
    const float magnitude = std::fabs(diagonal);
    return magnitude < kLeastScaled ? 1.0f : std::sqrt(magnitude);
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    s[i] = root(matrix[i]);
    s[i + n] = root(matrix[i + kMatrixVV * n]);
  }
};

/// Entry (i, j) / (s_i s_j) in place, right-hand side / s_i; the second equation's couplings go to the plane
/// behind the first one's.
struct applyRowScaling_kernel {
  float *matrix, *rhs;
  const float* s;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float s1 = s[i], s2 = s[i + n];
    matrix[i] /= s1 * s1;
    matrix[i + kMatrixVU * n] /= s1 * s2;
    matrix[i + kMatrixUV * n] /= s1 * s2;
    matrix[i + kMatrixVV * n] /= s2 * s2;
    rhs[i] /= s1;
    rhs[i + n] /= s2;
    if (y >= 1) couple(matrix + kMatrixNorth * n + i, i, i - p);
    if (x >= 1) couple(matrix + kMatrixWest * n + i, i, i - 1);
    if (x < w - 1) couple(matrix + kMatrixEast * n + i, i, i + 1);
    if (y < h - 1) couple(matrix + kMatrixSouth * n + i, i, i + p);
  }
  TARVO_HOST_DEVICE void couple(float* coupling, int i, int j) const {
    const int n = h * p;
    const float c = *coupling;
    coupling[0] = c / (s[i] * s[j]);
    coupling[n] = c / (s[i + n] * s[j + n]);
  }
};

/// x = y / s.
struct inverseScaling_kernel {
  const float *s, *y;
  float* x;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int column, int row) const {
    const int i = row * p + column;
    const int n = h * p;
    x[i] = y[i] / s[i];
    x[i + n] = y[i + n] / s[i + n];
  }
};

/// The solver's scalars; they stay on the device.
struct SolverState {
  float rz;     ///< r * z at the top of the iteration
  float alpha;  ///< step length
  float beta;   ///< weight of the old search direction
  int done;     ///< set by the stopping test: the rest of the solve does nothing
};

/// |r * z| below this ends a solve, compared in double precision.
constexpr double kSolved = 0.00001;

TARVO_HOST_DEVICE bool solved(float rz) {
  return std::fabs(static_cast<double>(rz)) < kSolved;
}

// Scalar steps, one pixel each.

/// After the first r * z: the stopping test.
struct BeginSolve {
  SolverState* state;
  const float* dot;
  static constexpr int h = 1, w = 1;
  TARVO_HOST_DEVICE void operator()(int, int) const { *state = {*dot, 0.0f, 0.0f, solved(*dot) ? 1 : 0}; }
};

/// After search * q: the step length.
struct SetAlpha {
  SolverState* state;
  const float* dot;
  static constexpr int h = 1, w = 1;
  TARVO_HOST_DEVICE void operator()(int, int) const { state->alpha = state->rz / *dot; }
};

/// After the new r * z: beta, and the stopping test of the next iteration.
struct SetBeta {
  SolverState* state;
  const float* dot;
  static constexpr int h = 1, w = 1;
  TARVO_HOST_DEVICE void operator()(int, int) const {
    if (state->done != 0) return;
    state->beta = *dot / state->rz;
    state->rz = *dot;
    if (solved(*dot)) state->done = 1;
  }
};

/// x += alpha * search, r -= alpha * q, then z = inverse block * r; nothing once the solve is done.
struct StepAndPrecondition {
  const float* matrix;
  const SolverState* state;
  float* x;
  const float* search;
  float* r;
  const float* q;
  float* z;
  int h, w, p;
  SystemLayout layout;

  TARVO_HOST_DEVICE void operator()(int column, int row) const {
    if (state->done != 0) return;
    const int i = row * p + column;
    const int n = h * p;
    const float alpha = state->alpha;
    x[i] = fmaf(alpha, search[i], x[i]);
    x[i + n] = fmaf(alpha, search[i + n], x[i + n]);
    const float r1 = fmaf(-alpha, q[i], r[i]);
    const float r2 = fmaf(-alpha, q[i + n], r[i + n]);
    const Pair pair = blockSolve(matrix[i], matrix[i + layout.vu], matrix[i + layout.vv], r1, r2);
    r[i] = r1;
    r[i + n] = r2;
    z[i] = pair.first;
    z[i + n] = pair.second;
  }
};

/// search = search * beta + z; nothing once the solve is done.
struct NextSearch {
  const SolverState* state;
  float* search;
  const float* z;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    if (state->done != 0) return;
    const int i = y * p + x;
    const int n = h * p;
    search[i] = fmaf(search[i], state->beta, z[i]);
    search[i + n] = fmaf(search[i + n], state->beta, z[i + n]);
  }
};

}  // namespace kernels
