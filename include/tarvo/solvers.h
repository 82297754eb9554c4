#pragma once

#include <tarvo/export.h>

// Preconditioned conjugate gradients and relaxation for the linear system of a fixed-point step.
//
// The system at every pixel:
//   a_uu du + a_uv dv + sum c_n du_n = b_u
//   a_uv du + a_vv dv + sum c_n dv_n = b_v
// with one coupling c_n to each of the four neighbours n. `matrix` is a stack of twelve h x w planes of pitch
// p (see MatrixPlane), `rhs` a stack of two (b_u, b_v); planes lie h * p floats apart. The matrix is
// symmetric and positive definite. Any device error prints its message (unit "solvers") and ends the process.

/// Planes of the system matrix. No solver reads planes 5, 7, 9 and 11, which follow the couplings.
enum MatrixPlane {
  kMatrixUU = 0,
  kMatrixVU = 1,  ///< equal to kMatrixUV
  kMatrixUV = 2,
  kMatrixVV = 3,
  kMatrixNorth = 4,  ///< coupling to (x, y - 1)
  kMatrixWest = 6,   ///< coupling to (x - 1, y)
  kMatrixEast = 8,   ///< coupling to (x + 1, y)
  kMatrixSouth = 10  ///< coupling to (x, y + 1)
};

/// Number of planes of the system matrix.
inline constexpr int kMatrixPlanes = 12;

/// Work vectors of the solver, two planes each: 2 * h * p floats or more. The caller owns the buffers.
struct CGtmp {
  float* r;       ///< residual
  float* z;       ///< preconditioned residual
  float* spare;   ///< not touched
  float* search;  ///< search direction
  float* q;       ///< matrix times search direction
};

/// Improves (du, dv) towards matrix * (du, dv) = rhs by conjugate gradients, preconditioned with the inverse
/// of each pixel's 2 x 2 block. All scalars stay on the device. Dot products are in single precision, in a
/// fixed order that depends on h and w alone.
/// @param matrix      in: twelve-plane stack
/// @param rhs         in: two-plane stack
/// @param du, dv      in: start, out: improved solution [pixels]; dv == du + h * p
/// @param iterations  upper bound; stops early once |r * z| < 0.00001
/// @param cg          scratch, contents lost; with iterations <= 0 r holds the residual afterwards, z its
///                    preconditioned form, search a copy of z, and q zeros
/// Padding columns of du and dv stay untouched.
TARVO_API void gPCG(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, int p,
                    int iterations, CGtmp cg);

/// r = rhs - matrix * (du, dv); r is a two-plane stack. Both do the same. No check.
TARVO_API void computeResidual_opt_kernel(const float* matrix, const float* rhs, const float* du,
                                          const float* dv, int h, int w, int p, float* r);
TARVO_API void computeResidual_kernel(const float* matrix, const float* rhs, const float* du, const float* dv,
                                      int h, int w, int p, float* r);
/// out = matrix * (d1, d2); out is a two-plane stack. In the second equation mvm_opt_kernel reads kMatrixUV,
/// mvm_kernel reads kMatrixVU. No check.
TARVO_API void mvm_opt_kernel(const float* matrix, const float* d1, const float* d2, int h, int w, int p,
                              float* out);
TARVO_API void mvm_kernel(const float* matrix, const float* d1, const float* d2, int h, int w, int p,
                          float* out);
/// z = inverse of each pixel's 2 x 2 block times r, or r itself where the magnitude of the block's
/// determinant is 0.0001 or less, or not a number. No check.
TARVO_API void applyBlockJacobiPreconditioner_kernel(const float* matrix, const float* r, float* z, int h,
                                                     int w, int p);
/// z = r divided by the diagonal; diagonal entries below 0.000001 count as 1. No check.
TARVO_API void applyJacobiPreconditioner_kernel(const float* matrix, const float* r, float* z, int h, int w,
                                                int p);

/// Scales the system in place by the roots of its diagonal, so that its diagonal entries become 1 where they
/// were 10 or more: with s = sqrt(|a|) of the diagonal entry a of an equation, or 1 where |a| < 10, entry
/// (i, j) of the matrix is divided by s_i * s_j and entry i of the right-hand side by s_i. It stays symmetric.
/// The couplings of the two equations then differ: those of the second one go to the plane behind each of the
/// four, which no solver here reads. For solvers of the caller's; launched by nothing. No check.
/// @param matrix, rhs  in/out: the full twelve-plane stack, two planes
/// @param s            out: two planes, the scales of the first and the second equation
TARVO_API void applyRowScaling_kernel(float* matrix, float* rhs, float* s, int h, int w, int p);
/// x = y / s, two planes each: the solution x of a system from the solution y of the scaled one. x may be y.
/// No check.
TARVO_API void inverseScaling_kernel(const float* s, const float* y, float* x, int h, int w, int p);

/// Sum of the squared entries of the residual, in single precision, row by row. The residual is left in `r`,
/// two planes.
TARVO_API float gComputeResidual(const float* matrix, const float* rhs, const float* du, const float* dv,
                                 float* r, int h, int w, int p);
/// The same for dense host arrays (rows of w floats; 12 h rows, 2 h rows, h rows, h rows).
TARVO_API float computeResidual(const float* matrix, const float* rhs, const float* du, const float* dv,
                                int h, int w);
/// gPCG for dense host arrays; prints "Time= %f ms\n".
TARVO_API void PCG(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, int iterations);

// Relaxation: every pixel in turn gets (1 - omega) times its old value plus omega times the solution of its
// own equations with its neighbours held fixed. It converges for `omega` from 1 (plain) to below 2.

/// Relaxes in place the pixels with (x + y) mod 2 == colour (0 or 1), both equations at once. A pixel whose
/// 2 x 2 block has |det| <= 0.0001 gets (1 - omega) times its old value. Reads plane kMatrixUV. No check.
TARVO_API void SORiteration_mem_opt_kernel(const float* matrix, const float* rhs, float* du, float* dv, int h,
                                           int w, int colour, float omega, int p);
/// `iterations` sweeps over device planes, in place: colour 0, then colour 1. No check.
TARVO_API void gRedBlack(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, int p,
                         int iterations, float omega);
/// The same sweeps for dense host arrays; adds their processor time to sortimer. Device errors name unit
/// "OpticalFlowGPU".
/// @param duOut, dvOut  out: h rows each; may overlap `start`
/// @param start         in: 2 h rows, first du, then dv
TARVO_API void SORIterations(const float* matrix, const float* rhs, float* duOut, float* dvOut,
                             const float* start, int h, int w, float omega, int iterations);
/// Relaxes dense host planes in place, pixel after pixel in row order, first du, then dv with the new du;
/// `iterations` sweeps. Reads plane kMatrixVU and divides by the diagonal without a test. Prints "%d %f\n",
/// the number of sweeps done and computeResidual, before the first sweep and after each. A slow reference.
TARVO_API void GaussSeidel(const float* matrix, const float* rhs, float* du, float* dv, int h, int w,
                           float omega, int iterations);
