#pragma once

#include <tarvo/export.h>
#include <tarvo/solvers.h>

// The variational flow: coarse-to-fine driver and fixed-point step. Device planes are h x w, pitch p
// (floats), stacked planes h * p floats apart; pixel (x, y) of the first image corresponds to (x + u, y + v)
// in the second, displacements in pixels, u to the right and v downwards. Any device error prints its message
// (unit "OpticalFlowGPU") and ends the process.

/// Work buffers of the fixed-point step. The caller owns them.
struct FPtmp {
  float* increment;    ///< 2 planes: du, dv
  float* stData;       ///< 6 planes: brightness-constancy tensor
  float* stGrad;       ///< 6 planes: gradient-constancy tensor
  float* dataFactor;   ///< data weight
  float* gradFactor;   ///< gradient weight times gamma
  float* matchWeight;  ///< sum of the match weights m_k
  float* matchRhsU;    ///< sum of m_k (u - u_k)
  float* matchRhsV;    ///< sum of m_k (v - v_k)
  float* diffX;        ///< horizontal diffusivity
  float* diffY;        ///< vertical diffusivity
  float* matrix;       ///< 12 planes: system matrix (MatrixPlane)
  float* rhs;          ///< 2 planes: right-hand side
};

/// Flow from image 1 to image 2, coarse to fine, then five more passes at full resolution without matches. If
/// the picture is too small for any pass the flow is zero.
/// @param image1, image2 device stacks of three planes, values 0 ... 255
/// @param uOut, vOut     out: two new planes of the images' size and pitch, released with NDevice::release
/// @param matchU, matchV, matchWeight  match field: displacement [pixels] and weight (0: no match)
/// @param candidates, reserved  no effect; pass 1
/// @param channels       3
/// @param sigma          if greater than 0 a notice is printed; this function does not smooth
/// @param alpha          weight of the smoothness term
/// @param beta           weight of the match term
/// @param gamma          weight of the gradient term; gamma * eta^l on level l
/// @param eta            size ratio of consecutive levels, between 0 and 1
/// @param fixedPointIterations  per pass
/// @param solverIterations      per fixed-point iteration; doubled in the last five passes
TARVO_API void gVariationalFlowTarvo(float* image1, float* image2, float** uOut, float** vOut, float* matchU,
                                     float* matchV, float* matchWeight, int candidates, int height, int width,
                                     int pitch, int channels, float sigma, float alpha, float beta,
                                     float gamma, float eta, int fixedPointIterations, int solverIterations,
                                     int reserved);

/// The same for dense host arrays; u and v receive the flow. `sigma` is ignored. Throws
/// std::invalid_argument, naming the argument and its value, before anything is changed.
TARVO_API void variationalFlowTarvo(float* image1, float* image2, float* u, float* v, float* matchU,
                                    float* matchV, float* matchWeight, int candidates, int height, int width,
                                    int channels, float sigma, float alpha, float beta, float gamma,
                                    float eta, int fixedPointIterations, int solverIterations, int reserved);
/// The same without matches: the match arguments are not read. `sigma` greater than 0 prints the notice.
TARVO_API void variationalFlow(float* image1, float* image2, float* u, float* v, float* matchU, float* matchV,
                               float* matchWeight, int candidates, int height, int width, int channels,
                               float sigma, float alpha, float beta, float gamma, float eta,
                               int fixedPointIterations, int solverIterations, int reserved);

/// Mean energy per pixel of the flow (u, v) between two three-plane device images, without the match term:
/// (gamma A + B + alpha C) / (h w), with the robust sums A of the difference's gradient, B of the difference
/// and C of the flow's gradient. `reserved` has no effect.
TARVO_API float gObjectiveValue(float* image1, float* image2, float* u, float* v, int h, int w, int p,
                                float gamma, float reserved, float alpha);

/// One fixed-point step: adds the increment that minimises the level's energy to (u, v).
/// @param image1, warped2 `channels` stacked planes; warped2 is the second image warped by (u, v)
/// @param gconf           validity of the warp: 1 inside, 0 outside
/// @param gamma           the level's gradient weight
/// @param matchWeightIn   weights of the matches; null: no matches, matchU and matchV are not read
/// @param candidates, reserved  no effect
/// @param cg, fp          scratch; contents lost
TARVO_API void gNonLinearIteration(float* image1, float* warped2, float* gconf, float* matchU, float* matchV,
                                   float* matchWeightIn, int candidates, float* u, float* v, int h, int w,
                                   int p, int channels, float alpha, float beta, float gamma,
                                   int fixedPointIterations, int solverIterations, float reserved, CGtmp cg,
                                   FPtmp fp);
/// The same for dense host arrays, three channels and `candidates` planes in each match array.
TARVO_API void NonLinearIteration(float* image1, float* warped2, float* gconf, float* matchU, float* matchV,
                                  float* matchWeightIn, int candidates, float* u, float* v, int h, int w,
                                  float alpha, float beta, float gamma, int fixedPointIterations,
                                  int solverIterations, float reserved);

/// dataFactor = 1 / sqrt(E + 0.000001), E = d^T J d with d = (du, dv, 1); a negative E counts as 0. No check.
TARVO_API void DataFactor_kernel(const float* stData, const float* du, const float* dv, float* dataFactor,
                                 int h, int w, int p);
/// gradFactor = gamma / sqrt(E + 0.000001), likewise. No check.
TARVO_API void GradientFactor_kernel(const float* stGrad, const float* du, const float* dv, float* gradFactor,
                                     int h, int w, int p, float gamma);
/// Weight m = beta * c / sqrt(|(u + du, v + dv) - match|^2 + 0.000001) of every candidate whose c is greater
/// than 0, and its right-hand sides, summed over `candidates` planes of the match buffers. No check.
TARVO_API void MatchFactor_kernel(const float* u, const float* v, const float* du, const float* dv,
                                  const float* matchU, const float* matchV, const float* matchWeightIn,
                                  float* matchWeight, float* matchRhsU, float* matchRhsV, int candidates,
                                  int h, int w, int p, float beta);
/// Assembles matrix and rhs. `gamma` has no effect (it is inside gradFactor). No check.
TARVO_API void MakeMatrix_kernel(float* matrix, float* rhs, const float* dataFactor, const float* gradFactor,
                                 const float* matchWeight, const float* stData, const float* stGrad,
                                 const float* matchRhsU, const float* matchRhsV, const float* u,
                                 const float* v, const float* diffX, const float* diffY, int h, int w, int p,
                                 float gamma, float alpha);
/// The same, but the couplings lack the factor alpha. No check.
TARVO_API void MakeMatrix_dummy_kernel(float* matrix, float* rhs, const float* dataFactor,
                                       const float* gradFactor, const float* matchWeight, const float* stData,
                                       const float* stGrad, const float* matchRhsU, const float* matchRhsV,
                                       const float* u, const float* v, const float* diffX, const float* diffY,
                                       int h, int w, int p, float gamma, float alpha);
