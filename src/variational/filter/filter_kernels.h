#pragma once

#include "device/mask.h"
#include "device/sample.h"

namespace kernels {

/// out(x, y) = sum over i of mask[i] * in(clamp(x - R + i), y), taps in order, fused; Size taps known at
/// compile time, R = Size / 2.
template <int Size>
struct convolveXsmall_kernel {
  device::Taps mask;
  float* out;
  const float* in;
  int h, w, p;
  static constexpr int kReach = Size / 2;

  TARVO_HOST_DEVICE void inside(int x, int y) const {
    float sum = 0.0f;
    for (int i = 0; i < Size; ++i) sum = fmaf(mask.inlined[i], in[y * p + x - kReach + i], sum);
    out[y * p + x] = sum;
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    float sum = 0.0f;
    for (int i = 0; i < Size; ++i) {
      const int column = std::min(std::max(x - kReach + i, 0), w - 1);
      sum = fmaf(mask.inlined[i], in[y * p + column], sum);
    }
    out[y * p + x] = sum;
  }
};

/// The same along y.
template <int Size>
struct convolveYsmall_kernel {
  device::Taps mask;
  float* out;
  const float* in;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    float sum = 0.0f;
    for (int i = 0; i < Size; ++i) {
      const int row = std::min(std::max(y - Size / 2 + i, 0), h - 1);
      sum = fmaf(mask.inlined[i], in[row * p + x], sum);
    }
    out[y * p + x] = sum;
  }
};

/// Filters with any number of taps along x (direction 'h') or y (any other); out is not the source.
struct Convolve2dSep_kernel {
  device::View source;
  device::Taps mask;
  float* out;
  int h, w, p;
  char direction;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int radius = mask.size / 2;
    float sum = 0.0f;
    for (int i = 0; i < mask.size; ++i) {
      const float sample =
          direction == 'h' ? source.point(x - radius + i, y) : source.point(x, y - radius + i);
      sum = fmaf(mask[i], sample, sum);
    }
    out[y * p + x] = sum;
  }
};

/// Two-dimensional correlation with clamped borders, rows outer; 2 * (fh / 2) + 1 rows and likewise columns.
struct Convolve2d_kernel {
  device::View source;
  device::Taps mask;
  float* out;
  int h, w, p, fh, fw;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    float sum = 0.0f;
    int k = 0;
    for (int dy = -(fh / 2); dy <= fh / 2; ++dy) {
      for (int dx = -(fw / 2); dx <= fw / 2; ++dx, ++k) {
        const float tap = k < mask.size ? mask[k] : 0.0f;
        sum = fmaf(tap, source.point(x + dx, y + dy), sum);
      }
    }
    out[y * p + x] = sum;
  }
};

/// Two-dimensional correlation with mirrored borders: a position outside the plane is mirrored about the
/// border pixel, which is not repeated, and then limited to the plane.
struct convolveXYsmall_kernel {
  device::Taps mask;
  float* out;
  const float* in;
  int h, w, p, fh, fw;

  TARVO_HOST_DEVICE static int mirrored(int g, int n) {
    const int distance = g < 0 ? -g : g;
    const int image = distance < n - 1 ? distance : 2 * n - 2 - distance;
    return std::min(std::max(image, 0), n - 1);
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    float sum = 0.0f;
    for (int j = 0; j < fh; ++j) {
      for (int i = 0; i < fw; ++i) {
        int column = x - fw / 2 + i;
        int row = y - fh / 2 + j;
        if (column < 0 || column >= w || row < 0 || row >= h) {
          column = mirrored(column, w);
          row = mirrored(row, h);
        }
        sum = fmaf(mask[j * fw + i], in[row * p + column], sum);
      }
    }
    out[y * p + x] = sum;
  }
};

}  // namespace kernels
