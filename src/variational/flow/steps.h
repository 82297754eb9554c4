#pragma once

#include <tarvo/variational.h>

namespace variational {

// Steps of a pass that do the work of several exported kernels in one visit of each pixel.

/// Both tensors of the level, fp.stData and fp.stGrad, set rather than added to: as MakeST on cleared
/// tensors. Nine planes from fp.matrix on are scratch for the derivatives of the pictures.
void structureTensors(const float* image1, const float* warped2, const FPtmp& fp, const float* gconf, int h,
                      int w, int p, int channels);

/// The flow, the match field (null: no matches), and the weights of an assembly.
struct Assembly {
  const float *u, *v, *matchU, *matchV, *matchWeightIn;
  float alpha, beta, gamma;
};

/// fp.matrix and fp.rhs from the current increment and diffusivities: as DataFactor_kernel,
/// GradientFactor_kernel, MatchFactor_kernel with one candidate and MakeMatrix_kernel; the factors themselves
/// are not stored. The matrix is the five planes of kernels::SystemLayout::once.
void assembleSystem(const Assembly& assembly, const FPtmp& fp, int h, int w, int p);

}  // namespace variational
