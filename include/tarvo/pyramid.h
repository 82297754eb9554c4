#pragma once

#include <tarvo/export.h>

// Resampling between pyramid levels and warping, on device planes. Any device error prints its message (unit
// "OpticalFlowGPU") and ends the process.

/// Area average of an inH x inW plane (pitch inP) into an outH x outW one (pitch outP), target not larger
/// than the source. The last argument is ignored. No check of its own.
TARVO_API void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                                 int outP, int);
/// The same with a weight plane of the source's size and pitch: samples whose weight is not greater than 0
/// are left out, a positive weight under zero area counts as none; not-a-number where no weight falls.
TARVO_API void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                                 int outP, const float* weight, int);
/// Either of the two, the weighted one where `weight` is not null.
TARVO_API void downsample(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                          int outP, const float* weight);

/// out(x, y) = bilinear sample of `in` at (x / factor, y / factor), positions beyond the last column or row
/// limited to it. Values are resampled, not rescaled. out may overlap in.
TARVO_API void gInterpolate(float* out, int h, int w, int p, const float* in, int inH, int inW, int inP,
                            float factor);

/// Warps the `channels` (1 or 3, else nothing happens) stacked planes of `src` by the flow (u, v) [pixels]:
/// out(x, y) = bilinear sample of src at (x + u, y + v) and valid = 1 where that position lies in
/// [0, w - 1] x [0, h - 1], else the pixel of `fallback` and valid = 0. A not-a-number position counts as
/// inside. out may overlap src.
TARVO_API void gWarpMotion(float* out, const float* u, const float* v, const float* src,
                           const float* fallback, int channels, float* valid, int h, int w, int p);

/// Area average on dense host planes by running remainders, first along x, then along y; the same as
/// downsample_kernel up to rounding. Needs outW < inW and outH < inH; throws std::invalid_argument otherwise.
TARVO_API void downsampleCPU(const float* in, int inH, int inW, float* out, int outH, int outW, int planes);
