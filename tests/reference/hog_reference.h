#pragma once

#include <tarvo/filters.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "reference/filter_reference.h"

// Plain, slow twins of the histogram field and the match confidence: whole planes, step by step, with the
// device's order of operations. The sector is found with an arc tangent.
namespace reference {

/// Sector of a gradient by its correctly rounded arc tangent; not-a-number counts as 0.
inline int sectorOf(float gx, float gy, int bins) {
  const auto angle =
      static_cast<float>(std::atan2(static_cast<long double>(gy), static_cast<long double>(gx)));
  if (std::isnan(angle)) return 0;
  const auto shifted = static_cast<float>(static_cast<double>(angle) + 3.1415926);
  const float scaled = static_cast<float>(bins) * shifted;
  const int sector = static_cast<int>(static_cast<double>(scaled) / 6.2831853);
  return sector == bins ? 0 : sector;
}

/// Gradient magnitudes of all channels, added to the plane of their sector.
inline Planes sectorSums(const Planes& image, int bins) {
  const std::vector<float> mask = {-0.5f, 0.0f, 0.5f};
  const Planes gx = convolveX(image, mask), gy = convolveY(image, mask);
  Planes sums(image.h, image.w, bins);
  forPixels(image.h, image.w, image.count, [&](int x, int y, int k) {
    const float a = gx.at(x, y, k), b = gy.at(x, y, k);
    if (a != 0.0f || b != 0.0f) sums.at(x, y, sectorOf(a, b, bins)) += std::sqrt(a * a + b * b);
  });
  return sums;
}

/// Circular smoothing over the sectors.
inline Planes smoothSectors(const Planes& sums) {
  constexpr float kOuter = 0.23899427f, kInner = 0.52201146f;
  Planes out(sums.h, sums.w, sums.count);
  for (int b = 0; b < sums.count; ++b) {
    const int before = (b + sums.count - 1) % sums.count, after = (b + 1) % sums.count;
    forPixels(sums.h, sums.w, [&](int x, int y) {
      out.at(x, y, b) =
          kOuter * sums.at(x, y, before) + kInner * sums.at(x, y, b) + kOuter * sums.at(x, y, after);
    });
  }
  return out;
}

inline Planes hogField(const Planes& image, int bins = 15) {
  const std::vector<float> mean(7, 1.0f / 7.0f);
  return convolveY(convolveX(smoothSectors(sectorSums(image, bins)), mean), mean);
}

/// The host's field: smoothing mirrored at the end sectors, which are then blended; mean over the pixels
/// inside.
inline Planes hostHogField(const Planes& image) {
  constexpr double kOuter = 0.23899427f, kInner = 0.52201146f;
  const Planes sums = sectorSums(image, 15);
  Planes smooth(image.h, image.w, 15), out(image.h, image.w, 15);
  forPixels(image.h, image.w, [&](int x, int y) {
    double line[15];
    for (int b = 0; b < 15; ++b) {
      line[b] = kOuter * sums.at(x, y, std::max(b - 1, 0)) + kInner * sums.at(x, y, b) +
                kOuter * sums.at(x, y, std::min(b + 1, 14));
    }
    const double first = line[0], last = line[14];
    line[0] = kOuter * last + (1.0 - kOuter) * first;
    line[14] = kOuter * first + (1.0 - kOuter) * last;
    for (int b = 0; b < 15; ++b) smooth.at(x, y, b) = static_cast<float>(line[b]);
  });
  forPixels(image.h, image.w, 15, [&](int x, int y, int b) {
    double sum = 0.0;
    int count = 0;
    for (int j = std::max(0, y - 3); j <= std::min(image.h - 1, y + 3); ++j) {
      for (int i = std::max(0, x - 3); i <= std::min(image.w - 1, x + 3); ++i, ++count)
        sum += smooth.at(i, j, b);
    }
    out.at(x, y, b) = static_cast<float>(sum / count);
  });
  return out;
}

/// Sums over the channels of the products of the derivatives (xx, xy, yy), each added by `add`(a, b, sum).
template <class Add>
Planes gradientTensor(const Planes& image, const Add& add) {
  const std::vector<float> mask = {-0.5f, 0.0f, 0.5f};
  const Planes gx = convolveX(image, mask), gy = convolveY(image, mask);
  Planes tensor(image.h, image.w, 3);
  forPixels(image.h, image.w, image.count, [&](int x, int y, int k) {
    const float a = gx.at(x, y, k), b = gy.at(x, y, k);
    tensor.at(x, y, 0) = add(a, a, tensor.at(x, y, 0));
    tensor.at(x, y, 1) = add(a, b, tensor.at(x, y, 1));
    tensor.at(x, y, 2) = add(b, b, tensor.at(x, y, 2));
  });
  return tensor;
}

inline Planes confidence(const Planes& image) {
  const Planes tensor =
      gradientTensor(image, [](float a, float b, float sum) { return std::fma(a, b, sum); });
  Planes out(image.h, image.w);
  int size = 0;
  const std::unique_ptr<float[]> taps(GaussianFilterCreate(4.0f, size));
  const std::vector<float> gaussian(taps.get(), taps.get() + size);
  const Planes smooth = convolveY(convolveX(tensor, gaussian), gaussian);
  forPixels(image.h, image.w, [&](int x, int y) {
    const float xx = smooth.at(x, y, 0), xy = smooth.at(x, y, 1), yy = smooth.at(x, y, 2);
    const float t = (xx + yy) * 0.5f;
    const float d = xx * yy - xy * xy;
    const float q = t * t - d;
    const float magnitude = std::sqrt(tensor.at(x, y, 0) + tensor.at(x, y, 2));
    out.at(x, y) = magnitude * (t - std::sqrt(q < 0.0f ? 0.0f : q));
  });
  return out;
}

}  // namespace reference
