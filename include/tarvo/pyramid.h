#pragma once

#include <tarvo/export.h>

// Resampling between pyramid levels and warping, on device planes. Any device error prints its message (unit
// "OpticalFlowGPU") and ends the process.

/// Area average of an inH x inW plane (pitch inP) into an outH x outW one (pitch outP), which is not larger.
/// The last argument is ignored. No check.
TARVO_API void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                                 int outP, int);
/// The weighted average, with a weight plane of the source's size and pitch. A sample counts where both its
/// weight and the area that it shares with the target pixel are greater than 0; where none counts the result
/// is not a number.
TARVO_API void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                                 int outP, const float* weight, int);
/// Either of the two, the weighted one where `weight` is not null.
TARVO_API void downsample(const float* in, int inH, int inW, int inP, float* out, int outH, int outW,
                          int outP, const float* weight);

/// out(x, y) = bilinear sample of `in` at (x / factor, y / factor); positions beyond the last column or row
/// are limited to it. The values are not multiplied by factor. out may overlap in.
TARVO_API void gInterpolate(float* out, int h, int w, int p, const float* in, int inH, int inW, int inP,
                            float factor);

/// Warps the `channels` stacked planes of `src` (1 or 3; otherwise nothing happens) by the flow (u, v)
/// [pixels]. Where (x + u, y + v) lies in [0, w - 1] x [0, h - 1], out(x, y) is the bilinear sample of src
/// there and valid is 1; elsewhere out is the pixel of `fallback` and valid is 0. A position that is not a
/// number counts as inside. out may overlap src.
TARVO_API void gWarpMotion(float* out, const float* u, const float* v, const float* src,
                           const float* fallback, int channels, float* valid, int h, int w, int p);

/// Area average on dense host planes by running remainders, first along x, then along y; the same as
/// downsample_kernel up to rounding. Throws std::invalid_argument unless 1 <= outW < inW and 1 <= outH < inH.
TARVO_API void downsampleCPU(const float* in, int inH, int inW, float* out, int outH, int outW, int planes);
