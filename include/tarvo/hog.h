#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/export.h>

// What the matching step compares: dense histograms of oriented gradients, and the quantities that decide
// which points are searched (corner confidence) and which candidates are compared (descriptor energy).
//
// A histogram field has 15 planes of the image's size. At every pixel, plane b holds how much of the gradient
// magnitude in the neighbourhood [grey levels per pixel, summed over the channels] points into sector b. The
// sectors are 24 degrees wide; sector b begins at b * 24 - 180 degrees, x to the right and y downwards: a
// gradient along -x falls into sector 0, along -y into 3, along +x into 7, along +y into 11. Opposite
// gradients never share a sector.
//
// Device planes are h x w with pitch p, stacked planes h * p floats apart; padding is never read. Host arrays
// are dense. A value that is not a number or not finite spoils results in its neighbourhood, but causes no
// access outside the planes. Any device error prints its message (unit "HOGMatch") and ends the process.

/// Number of orientation sectors.
inline constexpr int kHogBins = 15;

// Histograms on the device.

/// Histogram field of an image: central differences of each channel, binned by computeHOG_kernel, smoothed
/// over neighbouring sectors by zFilter_kernel, averaged over 7 x 7 pixels, borders repeated. Equal
/// neighbourhoods give equal bits wherever they lie.
/// @param image    in: `channels` stacked planes
/// @param hog      out: `bins` stacked planes, all written; not the image
/// @param channels at least 1
/// @param bins     15
TARVO_API void gComputeHOG(const float* image, float* hog, int channels, int bins, int height, int width,
                           int pitch);

/// Adds sqrt(gx^2 + gy^2) at each pixel to the accumulator plane of the sector that (gx, gy) points into: the
/// integer part of bins * (atan2(gy, gx) + 3.1415926) / 6.2831853, sum and product rounded to float, the
/// quotient in double; a result of `bins` counts as 0. A zero gradient adds nothing; a gradient with a
/// component that is not a number is added to sector 0. No check.
/// @param accumulator in/out: `bins` stacked planes; bins from 1 to 64
TARVO_API void computeHOG_kernel(const float* gx, const float* gy, float* accumulator, int bins, int height,
                                 int width, int pitch);

/// Circular smoothing over the sectors: hog_b = w0 acc_(b-1) + w1 acc_b + w2 acc_(b+1), indices modulo bins,
/// with the fixed weights 0.23899427, 0.52201146, 0.23899427. No check.
/// @param taps, length not read; 3 weights are used
TARVO_API void zFilter_kernel(const float* accumulator, float* hog, int bins, const float* taps, int length,
                              int height, int width, int pitch);

/// gComputeHOG for host arrays: `channels` planes of width x height in, 15 planes out. Prints "hog end".
TARVO_API void ComputeHOGGPU(const float* image, float* hog, int channels, int width, int height);

/// Mean over the square window of half-width size / 2 around each pixel, counting only its pixels inside the
/// image. Device planes; the work is done on the host. dst may be src.
TARVO_API void boxFilterCPU(float* dst, const float* src, int height, int width, int pitch, int size);

// Histograms on the host.

/// The histogram field by host filters. It differs from gComputeHOG at directions within rounding of a sector
/// border, slightly in planes 0 and 14, and within three pixels of the image border, where only pixels inside
/// the image are averaged. A gradient with a component that is not a number counts for sector 0.
/// @param image width x height x channels
/// @param hog   out: resized to width x height x 15
TARVO_API void computeHOG(const CTensor<float>& image, CTensor<float>& hog);

// Corner confidence, on the device and on the host.

/// Confidence of every pixel [(grey levels per pixel)^3]: the smaller eigenvalue of the structure tensor,
/// summed over the channels and smoothed with a Gaussian of 4 pixels, times the gradient magnitude of the
/// pixel itself. It is zero where the pixel's own derivatives are zero, and near zero on straight edges. A
/// negative discriminant of the eigenvalue counts as 0.
/// @param image      in: `channels` stacked planes
/// @param confidence out: one plane; not the image
TARVO_API void gComputeConfidence(const float* image, float* confidence, int height, int width, int pitch,
                                  int channels);

/// Structure tensor and gradient magnitude of the derivatives dx, dy (`channels` stacked planes each):
/// jxx = sum dx^2, jxy = sum dx dy, jyy = sum dy^2, channel by channel, each step fused;
/// magnitude = sqrt(jxx + jyy). No check.
TARVO_API void sqrAddMag_kernel(const float* dx, const float* dy, float* jxx, float* jxy, float* jyy,
                                float* magnitude, int height, int width, int pitch, int channels);

/// confidence = magnitude * (t - sqrt(max(t^2 - d, 0))), t = (jxx + jyy) / 2, d = jxx jyy - jxy^2. No check.
TARVO_API void computeConfidence_kernel(const float* jxx, const float* jxy, const float* jyy,
                                        const float* magnitude, float* confidence, int height, int width,
                                        int pitch);

/// gComputeConfidence for host arrays: `channels` planes of width x height in, one out. `spare` is not read.
TARVO_API void computeConfidenceGPU(const float* image, const float* spare, float* confidence, int height,
                                    int width, int channels);

/// The confidence by host filters: differs from gComputeConfidence by the recursive smoothing and rounding.
/// @param spare      not read
/// @param confidence out: resized to width x height
TARVO_API void computeConfidence(const CTensor<float>& image, const CTensor<float>& spare,
                                 CMatrix<float>& confidence);

// Descriptor energy, sums and edge strength.

/// energy = hog_0 + hog_1 + ... + hog_(bins-1), in this order, at each pixel. No check.
TARVO_API void computeEnergy_kernel(const float* hog, float* energy, int height, int width, int pitch,
                                    int bins);

/// The same for host arrays: `bins` planes of width x height in, one out.
TARVO_API void computeEnergy(const float* hog, float* energy, int height, int width, int bins);

/// Sum of each row of a plane into rowSums[0 ... height - 1]: partial sum t = 0 ... 255 takes columns t,
/// t + 256, ...; the 256 are added by halving. No check.
TARVO_API void compute2DSum_kernel(const float* plane, float* rowSums, int height, int width, int pitch);

/// Sum of `count` row sums in device memory, added on the host in order.
TARVO_API float compute2DSum_step2(const float* rowSums, int count);

/// Sum of all values of a device plane: row sums, then their sum.
TARVO_API float gCompute2DSum(const float* plane, int height, int width, int pitch);

/// gCompute2DSum of a dense host plane.
TARVO_API float compute2DSum(const float* plane, int height, int width);

/// Overall edge contrast of an image: ((0.7 M + 0.3 m) / 100)^2 with M the largest and m the mean gradient
/// magnitude of its pixels, all channels together. Host; 0 for an empty image.
TARVO_API float edgeStrength(const CTensor<float>& image);
