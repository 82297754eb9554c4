#pragma once

#include <cmath>

#include "device/kernel.h"

namespace match {

/// Partial sums of a row: column x belongs to sum x % kRowLanes.
constexpr int kRowLanes = 256;

}  // namespace match

namespace kernels {

/// Tensor sums over the channels and the gradient magnitude. Channels is their number if it is known at
/// compile time, so that the CPU's loop over pixels runs in vectors; otherwise 0.
template <int Channels>
struct sqrAddMag_kernel {
  const float *dx, *dy;
  float *jxx, *jxy, *jyy, *magnitude;
  int h, w, p, channels;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int count = Channels > 0 ? Channels : channels;
    const int n = h * p;
    const int i = y * p + x;
    float xx = 0.0f, xy = 0.0f, yy = 0.0f;
    for (int c = 0; c < count; ++c) {
      const float gx = dx[i + c * n], gy = dy[i + c * n];
      xx = fmaf(gx, gx, xx);
      xy = fmaf(gx, gy, xy);
      yy = fmaf(gy, gy, yy);
    }
    jxx[i] = xx;
    jxy[i] = xy;
    jyy[i] = yy;
    magnitude[i] = std::sqrt(xx + yy);
  }
};

/// magnitude * (t - sqrt(max(t^2 - d, 0))), t half the trace and d the determinant; a not-a-number stays.
struct computeConfidence_kernel {
  const float *jxx, *jxy, *jyy, *magnitude;
  float* confidence;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float xx = jxx[i], xy = jxy[i], yy = jyy[i];
    const float t = (xx + yy) * 0.5f;
    const float d = xx * yy - xy * xy;
    const float discriminant = t * t - d;
    const float root = std::sqrt(discriminant < 0.0f ? 0.0f : discriminant);
    confidence[i] = magnitude[i] * (t - root);
  }
};

/// Sum of the planes of a field, in order. Bins: like Channels above.
template <int Bins>
struct computeEnergy_kernel {
  const float* hog;
  float* energy;
  int h, w, p, bins;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int count = Bins > 0 ? Bins : bins;
    const int i = y * p + x;
    float sum = 0.0f;
    for (int b = 0; b < count; ++b) sum += hog[i + b * h * p];
    energy[i] = sum;
  }
};

/// rowSums[y] = sum of row y of a plane in kRowLanes lanes, added up by halving. Every device has its own
/// form.
struct compute2DSum_kernel {
  const float* plane;
  float* rowSums;
  int h, w, p;
};

}  // namespace kernels
