#pragma once

#include <tarvo/export.h>

// One-dimensional Gaussian masks and filtering of device planes and host images.
//
// Correlation: a mask f of n taps along x gives out(x, y) = sum over i of f[i] * in(x - n / 2 + i, y), taps
// in order, each step one fused multiply-add starting from 0. Samples beyond a border read the border pixel,
// except in gConvolve. Masks are host arrays of an odd number of taps, at most 4096; a longer one is a device
// error. Any device error prints its message (unit "Filters") and ends the process.

/// (1 / sigma) * exp(-x^2 / (2 sigma^2)): the exponential in float, factor and product in double.
TARVO_API float gauss(float x, float sigma);
/// -x * exp(-x^2 / (2 sigma^2)), in float, without a factor of sigma.
TARVO_API float gauss_derivative(float x, float sigma);

/// Normalised Gaussian mask of trunc(6 * sigma) taps, made odd, in a new array that the caller deletes
/// (delete[]).
/// @param sigma standard deviation [pixels], positive
/// @param size  out: number of taps
TARVO_API float* GaussianFilterCreate(float sigma, int& size);
/// Derivative-of-Gaussian mask of the same length: negative left of the centre, positive right of it,
/// absolute values summing to 1, so that it responds positively to values that grow with x (or y). The caller
/// deletes it.
TARVO_API float* GaussianDerivativeFilterCreate(float sigma, int& size);

/// Filters a device plane along x or y. out may be in.
TARVO_API void gConvolveX(float* out, const float* in, int h, int w, int p, const float* mask, int size);
TARVO_API void gConvolveY(float* out, const float* in, int h, int w, int p, const float* mask, int size);
/// gConvolveX for an out that is not in.
TARVO_API void smallconvx(float* out, const float* in, int h, int w, int p, const float* mask, int size);
/// Filters a device plane with fh rows of fw taps; coordinates beyond a border are mirrored about the border
/// pixel without repeating it (-1 reads 1, n reads n - 2). The mask's radius must be smaller than the plane.
/// out is not in.
TARVO_API void gConvolve(float* out, const float* in, int h, int w, int p, const float* mask, int fh, int fw);
/// Gaussian smoothing of a device plane along x, then y. out may be in.
TARVO_API void gGaussianFilter(float* out, const float* in, int h, int w, int p, float sigma);
/// Gaussian derivative of a dense device plane (pitch w) along x for direction 'x', else along y.
TARVO_API void gGaussianDerivativeFilter(float* out, const float* in, int h, int w, float sigma,
                                         char direction);

// The same for dense host images, h rows of w floats; out may be in. The two ints are ignored.
extern "C" {
/// Filters with fh rows of fw taps, borders clamped; where fw is 1, with the fh taps along x and then along
/// y.
TARVO_API void Convolve2d(float* out, int h, int w, const float* in, int, int, const float* mask, int fh,
                          int fw);
/// Gaussian smoothing along x, then y.
TARVO_API void GaussianFilter(float* out, int h, int w, const float* in, int, int, float sigma);
/// Gaussian derivative along x for direction 'x', else along y.
TARVO_API void GaussianDerivativeFilter(float* out, int h, int w, const float* in, int, int, char direction,
                                        float sigma);
}
