#pragma once

namespace variational {

/// The flow (u, v) of inH x inW, pitch inP, on the finer grid of out: as gInterpolate on both components,
/// then Scale_kernel with the factor, in one visit of each pixel. The planes must not overlap.
void enlargeFlow(float* outU, float* outV, int h, int w, int p, const float* u, const float* v, int inH,
                 int inW, int inP, float factor);

}  // namespace variational
