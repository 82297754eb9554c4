#pragma once

#include <algorithm>
#include <cmath>

#include "support/planes.h"

/// Plain twins of resampling and warping.
namespace reference {

/// Length of source sample j under the target's footprint [from, to) times `area`, the first end first.
struct Extent {
  float from, to;
  int first, last;
  Extent(int target, int sourceSize, int targetSize) {
    const float scale = static_cast<float>(sourceSize) / static_cast<float>(targetSize);
    from = static_cast<float>(target) * scale;
    to = static_cast<float>(target + 1) * scale;
    first = static_cast<int>(std::floor(from));
    last = std::min(static_cast<int>(std::floor(to)), sourceSize - 1);
  }
  float cutAtStart(float area, int j) const {
    return from - static_cast<float>(j) > 0.0f ? area * ((1.0f - from) + static_cast<float>(j)) : area;
  }
  float cutAtEnd(float area, int j) const {
    return j == static_cast<int>(std::floor(to)) ? area * (to - std::floor(to)) : area;
  }
};

inline float areaOf(const Extent& rows, const Extent& columns, int i, int j) {
  float area = rows.cutAtStart(1.0f, j);
  area = columns.cutAtStart(area, i);
  area = rows.cutAtEnd(area, j);
  return columns.cutAtEnd(area, i);
}

/// Area average, weighted by a plane where `weight` is not null.
inline Planes downsample(const Planes& in, int outH, int outW, const Planes* weight) {
  Planes out(outH, outW);
  forPixels(outH, outW, [&](int x, int y) {
    const Extent rows(y, in.h, outH);
    const Extent columns(x, in.w, outW);
    float sum = 0.0f;
    float weights = 0.0f;
    for (int j = rows.first; j <= rows.last; ++j) {
      for (int i = columns.first; i <= columns.last; ++i) {
        float area = areaOf(rows, columns, i, j);
        if (weight != nullptr) {
          if (!(weight->at(i, j) > 0.0f && area > 0.0f)) continue;
          area = weight->at(i, j) * area;
          weights = weights + area;
        }
        sum = std::fmaf(area, in.at(i, j), sum);
      }
    }
    const float sx = static_cast<float>(in.w) / static_cast<float>(outW);
    const float sy = static_cast<float>(in.h) / static_cast<float>(outH);
    out.at(x, y) = sum / (weight != nullptr ? weights : sx * sy);
  });
  return out;
}

/// Bilinear sample at (px, py), limited to the plane, in double precision.
inline float bilinear(const Planes& in, int k, double px, double py) {
  const double cx = std::clamp(px, 0.0, static_cast<double>(in.w - 1));
  const double cy = std::clamp(py, 0.0, static_cast<double>(in.h - 1));
  const int x0 = static_cast<int>(cx);
  const int y0 = static_cast<int>(cy);
  const int x1 = std::min(x0 + 1, in.w - 1);
  const int y1 = std::min(y0 + 1, in.h - 1);
  const double fx = cx - x0;
  const double fy = cy - y0;
  const double top =
      (1 - fx) * static_cast<double>(in.at(x0, y0, k)) + fx * static_cast<double>(in.at(x1, y0, k));
  const double bottom =
      (1 - fx) * static_cast<double>(in.at(x0, y1, k)) + fx * static_cast<double>(in.at(x1, y1, k));
  return static_cast<float>((1 - fy) * top + fy * bottom);
}

inline Planes interpolate(const Planes& in, int h, int w, float factor) {
  Planes out(h, w);
  forPixels(h, w, [&](int x, int y) {
    out.at(x, y) = bilinear(in, 0, static_cast<double>(static_cast<float>(x) / factor),
                            static_cast<double>(static_cast<float>(y) / factor));
  });
  return out;
}

struct Warped {
  Planes out, valid;
};

inline Warped warp(const Planes& source, const Planes& fallback, const Planes& u, const Planes& v) {
  Warped result{Planes(source.h, source.w, source.count), Planes(source.h, source.w)};
  forPixels(source.h, source.w, [&](int x, int y) {
    const float px = static_cast<float>(x) + u.at(x, y);
    const float py = static_cast<float>(y) + v.at(x, y);
    const bool outside = px < 0.0f || px > static_cast<float>(source.w - 1) || py < 0.0f ||
                         py > static_cast<float>(source.h - 1);
    result.valid.at(x, y) = outside ? 0.0f : 1.0f;
    for (int k = 0; k < source.count; ++k) {
      result.out.at(x, y, k) = outside
                                   ? fallback.at(x, y, k)
                                   : bilinear(source, k, static_cast<double>(px), static_cast<double>(py));
    }
  });
  return result;
}

}  // namespace reference
