#pragma once

#include <tarvo/export.h>
#include <tarvo/variational.h>

namespace gpu {

// Steps of a pass that do the work of several exported kernels in one visit of each pixel.

/// The flow (u, v) of inH x inW, pitch inP, on the finer grid of out: as gInterpolate on both components,
/// then Scale_kernel with the factor. The planes must not overlap. Exported because the tests hold it against
/// them.
TARVO_API void enlargeFlow(float* outU, float* outV, int h, int w, int p, const float* u, const float* v,
                           int inH, int inW, int inP, float factor);

/// Both tensors of the level, fp.stData and fp.stGrad, set rather than added to: as MakeST on cleared
/// tensors.
void structureTensors(const float* image1, const float* warped2, const FPtmp& fp, const float* gconf, int h,
                      int w, int p, int channels);

/// The flow, the match field (null: no matches), and the weights of an assembly.
struct Assembly {
  const float *u, *v, *matchU, *matchV, *matchWeightIn;
  float alpha, beta, gamma;
};

/// fp.matrix and fp.rhs from the current increment and diffusivities: as DataFactor_kernel,
/// GradientFactor_kernel, MatchFactor_kernel with one candidate and MakeMatrix_kernel; the factors themselves
/// are not stored. Of the matrix only what kernels::SystemLayout::once needs is written.
void assembleSystem(const Assembly& assembly, const FPtmp& fp, int h, int w, int p);

/// As gPCG for the increment of the system that assembleSystem has made.
void solveSystem(const FPtmp& fp, int h, int w, int p, int iterations, const CGtmp& cg);

}  // namespace gpu
