#pragma once

namespace variational {

/// Widest reach of weightedMedian, in pixels.
constexpr int kWidestMedian = 4;

/// The weighted median of a flow: lone outliers vanish, edges that the picture shares stay sharp. At every
/// pixel each component of (outU, outV) is a minimiser m of the sum of w_i |f_i - m| over the window of
/// 2 radius + 1 rows and columns, clipped to the picture:
///   w_i = (valid_i + 0.01) max(0, 1 - a / 16)^16, about (valid_i + 0.01) exp(-a), with
///   a   = |colour_i - colour|^2 / (2 sigmaColour^2) + |position_i - position|^2 / (2 sigmaDistance^2);
/// |colour_i - colour|^2 is the mean over the channels. The result is a value of the window, off the median by
/// less than 1/512 px, or by 1/4096 of the window's range where that is more. Where both components range over
/// less than 0.05 px in the window, the pixel keeps its flow.
/// @param outU, outV     out: h x w planes [px], pitch p; must not overlap the other planes
/// @param u, v           in: h x w planes [px], pitch p; what is not a number counts as larger than all numbers
/// @param picture        in: 3 such planes, h * p floats apart
/// @param valid          in: such a plane, 0 ... 1: how far the pixel's flow is to be trusted
/// @param radius         1 ... kWidestMedian [px]
/// @param sigmaColour    above 0, in units of the picture
/// @param sigmaDistance  above 0 [px]
/// The same bits on both devices. Padding is neither read nor written.
void weightedMedian(float* outU, float* outV, const float* u, const float* v, const float* picture,
                    const float* valid, int h, int w, int p, int radius, float sigmaColour,
                    float sigmaDistance);

}  // namespace variational
