#pragma once

#include <tarvo/NFlow.h>
#include <tarvo/variational.h>

namespace variational {

// Steps of a pass that do the work of several exported kernels in one visit of each pixel.

/// Whether the constraints are divided by |gradient|^2 + zeta^2. The robust weights of data, gradients and
/// matches are then taken in single precision.
inline bool isNormalised(const NFlow::Terms& terms) {
  return terms.zetaData > 0.0f;
}

/// Both tensors of the level, fp.stData and fp.stGrad, set rather than added to: as MakeST on cleared
/// tensors, or of normalised constraints. Nine planes from fp.matrix on are scratch for the derivatives of the
/// pictures.
void structureTensors(const float* image1, const float* warped2, const FPtmp& fp, const float* gconf, int h,
                      int w, int p, int channels, const NFlow::Terms& terms);

/// How much of each pixel of either picture is known, 0 ... 1; whole: all or nothing counts.
struct KnownPlanes {
  const float *first, *second;
  bool whole;
};

/// Multiplies the validity by c^2, where c is how far the pixel is known in image 1, times how far the place
/// that the flow (u, v) leads to is known in image 2: then the root of the energy has the factor c. Where all or
/// nothing counts, c is 1 or 0.
void weighValid(float* valid, const KnownPlanes& known, const float* u, const float* v, int h, int w, int p);

/// Two planes of factors of the smoothness towards the right and the lower neighbour; null: none.
struct EdgePlanes {
  float *x = nullptr, *y = nullptr;
};

/// The edge weights of a three-plane picture for edges of height `scale` [grey levels].
void edgeWeights(const float* image, const EdgePlanes& edges, int h, int w, int p, float scale);

/// fp.diffX and fp.diffY of the flow with the increment: as gDiffusivity, or with edge weights and the penalty
/// sqrt(s^2 + epsilon^2).
void diffusivity(const float* u, const float* v, const FPtmp& fp, int h, int w, int p,
                 const EdgePlanes& edges, float epsilon);

/// The flow, the match field (null: no matches), and the weights of an assembly.
struct Assembly {
  const float *u, *v, *matchU, *matchV, *matchWeightIn;
  float alpha, beta, gamma;
  bool single = false;  ///< robust weights in single precision
};

/// fp.matrix and fp.rhs from the current increment and diffusivities: as DataFactor_kernel,
/// GradientFactor_kernel, MatchFactor_kernel with one candidate and MakeMatrix_kernel; the factors themselves
/// are not stored. The matrix is the five planes of kernels::SystemLayout::once.
void assembleSystem(const Assembly& assembly, const FPtmp& fp, int h, int w, int p);

/// A pass: pictures, the second one warped by the flow, and the weights at its level.
struct Pass {
  const float *image1, *warped2, *valid;
  Assembly assembly;
  EdgePlanes edges;
  int fixedPointIterations, solverIterations;
  NFlow::Terms terms;
};

/// gNonLinearIteration with further terms: adds the increment to the flow (u, v), which pass.assembly reads.
void correctFlow(const Pass& pass, float* u, float* v, int h, int w, int p, int channels, const CGtmp& cg,
                 const FPtmp& fp);

}  // namespace variational
