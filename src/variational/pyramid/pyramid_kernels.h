#pragma once

#include "device/sample.h"

namespace kernels {

/// Source samples under one target pixel along one axis of an area average, and their lengths: sample j has
/// the factors start(j), 1 but for a first sample that is cut, and end(j), 1 but for the last one.
struct Footprint {
  float from;   // where it begins, in source pixels
  int first;    // first sample
  int last;     // last sample that lies inside the source
  int partial;  // the sample that holds the end
  float rest;   // the length in it

  TARVO_HOST_DEVICE Footprint(int target, float scale, int sourceSize) {
    from = static_cast<float>(target) * scale;
    const float to = static_cast<float>(target + 1) * scale;
    first = std::min(static_cast<int>(from), sourceSize - 1);
    partial = static_cast<int>(to);
    rest = to - static_cast<float>(partial);
    last = std::max(first, std::min(partial, sourceSize - 1));
  }
  TARVO_HOST_DEVICE float start(int j) const {
    const auto position = static_cast<float>(j);
    return from - position > 0.0f ? (1.0f - from) + position : 1.0f;
  }
  TARVO_HOST_DEVICE float end(int j) const { return j == partial ? rest : 1.0f; }
};

/// Area average: the sum of area * sample over the footprint, rows outer, each step fused, over its area.
/// The area is (row start * column start) * row end * column end.
struct downsample_kernel {
  const float* in;
  int inH, inW, inP;
  float* out;
  int outH, outW, outP;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const float sx = static_cast<float>(inW) / static_cast<float>(outW);
    const float sy = static_cast<float>(inH) / static_cast<float>(outH);
    const Footprint columns(x, sx, inW);
    const Footprint rows(y, sy, inH);
    float sum = 0.0f;
    for (int j = rows.first; j <= rows.last; ++j) {
      for (int i = columns.first; i <= columns.last; ++i) {
        const float area = rows.start(j) * columns.start(i) * rows.end(j) * columns.end(i);
        sum = fmaf(area, in[j * inP + i], sum);
      }
    }
    out[y * outP + x] = sum / (sx * sy);
  }
};

/// downsample_kernel on three channels of two pictures. Rows 0 ... levelH - 1 of the launch are those of the
/// first plane, the next levelH rows those of the second, and so on.
struct DownsamplePictures {
  const float *in1, *in2;
  int inH, inW, inP;
  float *out1, *out2;
  int levelH, outW, outP;
  int outH;  // 6 * levelH
  static constexpr int kChannels = 3;

  TARVO_HOST_DEVICE void operator()(int x, int row) const {
    const int plane = row / levelH;
    const int channel = plane % kChannels;
    const float* in = (plane < kChannels ? in1 : in2) + channel * inH * inP;
    float* out = (plane < kChannels ? out1 : out2) + channel * levelH * outP;
    downsample_kernel{in, inH, inW, inP, out, levelH, outW, outP}(x, row % levelH);
  }
};

/// Area average weighted by a plane; a sample counts where its weight and its area are both positive.
struct downsample_weighted_kernel {
  const float* in;
  int inH, inW, inP;
  float* out;
  int outH, outW, outP;
  const float* weight;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const Footprint columns(x, static_cast<float>(inW) / static_cast<float>(outW), inW);
    const Footprint rows(y, static_cast<float>(inH) / static_cast<float>(outH), inH);
    float sum = 0.0f;
    float weights = 0.0f;
    for (int j = rows.first; j <= rows.last; ++j) {
      for (int i = columns.first; i <= columns.last; ++i) {
        const float m = weight[j * inP + i];
        if (!(m > 0.0f)) continue;
        const float area = rows.start(j) * columns.start(i) * rows.end(j) * columns.end(i);
        if (!(area > 0.0f)) continue;
        sum = fmaf(m * area, in[j * inP + i], sum);
        weights += m * area;
      }
    }
    out[y * outP + x] = sum / weights;
  }
};

/// out(x, y) = bilinear sample of the source at (x / factor, y / factor).
struct interpolate_kernel {
  device::View source;
  float* out;
  int h, w, p;
  float factor;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    out[y * p + x] = source.bilinear(static_cast<float>(x) / factor, static_cast<float>(y) / factor);
  }
};

/// The same computation under the name of its filtered variant.
struct interpolateWithFilter_kernel : interpolate_kernel {};

/// A flow carried to a finer grid: interpolate_kernel on both components, then Scale_kernel with the factor.
struct EnlargeFlow {
  device::View u, v;  // of one size
  float *outU, *outV;
  int h, w, p;
  float factor;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const float px = static_cast<float>(x) / factor;
    const float py = static_cast<float>(y) / factor;
    outU[y * p + x] = u.bilinear(px, py) * factor;
    outV[y * p + x] = v.bilinear(px, py) * factor;
  }
};

/// Backward warp of Channels stacked planes by (u, v), with validity.
template <int Channels>
struct warp_motion_kernels {
  const float* source;
  float* out;
  const float* fallback;
  float* valid;
  int h, w, p;
  const float *u, *v;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float px = static_cast<float>(x) + u[i];
    const float py = static_cast<float>(y) + v[i];
    const bool isOutside = outside(px, py);
    valid[i] = isOutside ? 0.0f : 1.0f;
    channel(0, i, px, py, isOutside);
    if constexpr (Channels == 3) {  // written out: an inner loop would keep the outer one from vectorising
      channel(1, i, px, py, isOutside);
      channel(2, i, px, py, isOutside);
    }
  }
  /// Whether a position lies beyond a border; a not-a-number does not.
  TARVO_HOST_DEVICE bool outside(float px, float py) const {
    return (px < 0.0f) | (px > static_cast<float>(w - 1)) | (py < 0.0f) | (py > static_cast<float>(h - 1));
  }
  TARVO_HOST_DEVICE void channel(int c, int i, float px, float py, bool isOutside) const {
    const int plane = c * h * p;
    const float sample = device::View{source + plane, h, w, p}.bilinear(px, py);
    out[plane + i] = isOutside ? fallback[plane + i] : sample;
  }
};
using warp_motion_kernel = warp_motion_kernels<3>;
using warp_motion_1chan_kernel = warp_motion_kernels<1>;

}  // namespace kernels
