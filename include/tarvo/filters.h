#pragma once

#include <tarvo/export.h>

// One-dimensional Gaussian masks and filtering of device planes and host images.
//
// Correlation: a mask f of n taps along x gives out(x, y) = sum over i of f[i] * in(x - n / 2 + i, y),
// starting from 0, taps in order, each a fused multiply-add. Beyond a border the border pixel is read, except
// in gConvolve. Masks are host arrays of an odd number of taps, at most 4096; a longer one is a device error.
// Any device error prints its message (unit "Filters") and ends the process.

/// (1 / sigma) * exp(-x^2 / (2 sigma^2)): the exponential in float, the factor and the product in double.
TARVO_API float gauss(float x, float sigma);
/// -x * exp(-x^2 / (2 sigma^2)), in float, without a factor of sigma.
TARVO_API float gauss_derivative(float x, float sigma);

/// Normalised Gaussian mask in a new array, which the caller deletes (delete[]).
/// @param sigma standard deviation [pixels], positive
/// @param size  out: number of taps, trunc(6 * sigma), or one more where that is even
TARVO_API float* GaussianFilterCreate(float sigma, int& size);
/// Derivative-of-Gaussian mask of the same length: negative before the centre, positive behind it, absolute
/// values summing to 1. Its response is positive where values grow with x (or y). The caller deletes it.
TARVO_API float* GaussianDerivativeFilterCreate(float sigma, int& size);

/// Filters a device plane along x or y. out may be in.
TARVO_API void gConvolveX(float* out, const float* in, int h, int w, int p, const float* mask, int size);
TARVO_API void gConvolveY(float* out, const float* in, int h, int w, int p, const float* mask, int size);
/// gConvolveX for an out that is not in.
TARVO_API void smallconvx(float* out, const float* in, int h, int w, int p, const float* mask, int size);
/// Filters a device plane with fh rows of fw taps, for an out that is not in. Coordinates beyond a border are
/// mirrored about the border pixel, which is not repeated (-1 reads 1, n reads n - 2). The mask's radius must
/// be smaller than the plane.
TARVO_API void gConvolve(float* out, const float* in, int h, int w, int p, const float* mask, int fh, int fw);
/// Gaussian smoothing of a device plane along x, then y. out may be in.
TARVO_API void gGaussianFilter(float* out, const float* in, int h, int w, int p, float sigma);
/// Gaussian derivative of a dense device plane (pitch w) along x for direction 'x', else along y.
TARVO_API void gGaussianDerivativeFilter(float* out, const float* in, int h, int w, float sigma,
                                         char direction);

// The same for dense host images, h rows of w floats; out may be in. The two ints are ignored.
extern "C" {
/// Filters with fh rows of fw taps. If fw is 1, filters with the fh taps along x and then along y.
TARVO_API void Convolve2d(float* out, int h, int w, const float* in, int, int, const float* mask, int fh,
                          int fw);
/// Gaussian smoothing along x, then y.
TARVO_API void GaussianFilter(float* out, int h, int w, const float* in, int, int, float sigma);
/// Gaussian derivative along x for direction 'x', else along y.
TARVO_API void GaussianDerivativeFilter(float* out, int h, int w, const float* in, int, int, char direction,
                                        float sigma);
}
