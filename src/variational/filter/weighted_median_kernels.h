#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

#include "device/kernel.h"
#include "variational/elementwise_kernels.h"

namespace kernels {

/// Where the median of a component lies, both ends included. Made from the values of the window by `take`, then
/// halved. Empty, then the pixel keeps its flow, if none of them is a number or both infinities occur.
struct MedianInterval {
  static constexpr float kStill = 0.05f;               ///< windows of less range keep their flow [px]
  static constexpr float kResolution = 1.0f / 512.0f;  ///< intervals not wider than this are not halved [px]
  static constexpr int kMostHalvings = 12;

  float low = std::numeric_limits<float>::infinity();
  float high = -std::numeric_limits<float>::infinity();

  TARVO_HOST_DEVICE void take(float value) {
    low = value < low ? value : low;
    high = value > high ? value : high;
  }
  TARVO_HOST_DEVICE bool empty() const { return !(low <= high); }
  TARVO_HOST_DEVICE bool moves() const { return high - low >= kStill; }
  TARVO_HOST_DEVICE bool open() const { return high - low > kResolution; }
  TARVO_HOST_DEVICE float middle() const { return 0.5f * (low + high); }
  /// @param below  weight of the values less than middle()
  /// @param half   half the weight of all values
  TARVO_HOST_DEVICE void halve(float below, float half) {
    const float mid = middle();
    const bool halves = open();
    const bool above = below < half;
    low = (halves && above) ? mid : low;
    high = (halves && !above) ? mid : high;
  }
};

/// The weights of variational::weightedMedian: (valid + 0.01) t^16, where t = near - colourScale |colours|^2,
/// or 0 if that is negative.
struct MedianWeights {
  static constexpr float kLeastTrust = 0.01f;  ///< so that a window without valid pixels has weights

  float colourScale, distanceScale;

  MedianWeights(float sigmaColour, float sigmaDistance)
      : colourScale(1.0f / (16.0f * 2.0f * 3.0f * sigmaColour * sigmaColour)),
        distanceScale(1.0f / (16.0f * 2.0f * sigmaDistance * sigmaDistance)) {}

  TARVO_HOST_DEVICE float near(int dx, int dy) const {
    return 1.0f - distanceScale * static_cast<float>(dx * dx + dy * dy);
  }
  /// @param r, g, b  differences of the channels
  TARVO_HOST_DEVICE float weight(float r, float g, float b, float nearness, float valid) const {
    const float squares = fmaf(b, b, fmaf(g, g, r * r));
    return (valid + kLeastTrust) * power16(fmaf(-colourScale, squares, nearness));
  }
};

/// The weighted median by bisection: from the range of the window, the interval that holds the median is halved
/// by the weight of the values below its middle, and the result is the smallest value that is not below it.
/// Weights are added up row by row of the window, and each row from left to right.
struct WeightedMedian {
  static constexpr int kMostTaps = 81;

  const float *u, *v, *picture, *valid;
  float *outU, *outV;
  int h, w, p, radius;
  MedianWeights weights;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const Window window{std::max(x - radius, 0), std::min(x + radius, w - 1), std::max(y - radius, 0),
                        std::min(y + radius, h - 1), p};
    const int i = y * p + x;
    const MedianInterval rangeU = window.range(u), rangeV = window.range(v);
    if (!rangeU.moves() && !rangeV.moves()) {
      outU[i] = u[i];
      outV[i] = v[i];
      return;
    }
    float weight[kMostTaps];
    const float half = 0.5f * setWeights(weight, window, x, y);
    outU[i] = window.median(u, weight, rangeU, half, u[i]);
    outV[i] = window.median(v, weight, rangeV, half, v[i]);
  }

 private:
  /// Columns and rows, the last ones included; the weights of a window stand row by row.
  struct Window {
    int left, right, top, bottom, p;

    TARVO_HOST_DEVICE MedianInterval range(const float* plane) const {
      MedianInterval range;
      for (int y = top; y <= bottom; ++y) {
        for (int x = left; x <= right; ++x) range.take(plane[y * p + x]);
      }
      return range;
    }
    TARVO_HOST_DEVICE float median(const float* plane, const float* weight, MedianInterval interval,
                                   float half, float own) const {
      for (int step = 0; step < MedianInterval::kMostHalvings && interval.open(); ++step) {
        interval.halve(weightBelow(plane, weight, interval.middle()), half);
      }
      float least = interval.high;
      for (int y = top; y <= bottom; ++y) {
        for (int x = left; x <= right; ++x) {
          const float value = plane[y * p + x];
          least = value >= interval.low && value < least ? value : least;
        }
      }
      return interval.empty() ? own : least;
    }
    TARVO_HOST_DEVICE float weightBelow(const float* plane, const float* weight, float limit) const {
      float sum = 0.0f;
      for (int y = top; y <= bottom; ++y) {
        float row = 0.0f;
        for (int x = left; x <= right; ++x) row += plane[y * p + x] < limit ? *weight++ : (++weight, 0.0f);
        sum += row;
      }
      return sum;
    }
  };

  /// Sets the weights of a window around (x, y) and returns their sum.
  TARVO_HOST_DEVICE float setWeights(float* weight, const Window& window, int x, int y) const {
    const int n = h * p;
    const float* own = picture + y * p + x;
    float sum = 0.0f;
    for (int row = window.top; row <= window.bottom; ++row) {
      float rowSum = 0.0f;
      for (int column = window.left; column <= window.right; ++column) {
        const int i = row * p + column;
        const float* other = picture + i;
        *weight = weights.weight(other[0] - own[0], other[n] - own[n], other[2 * n] - own[2 * n],
                                 weights.near(column - x, row - y), valid[i]);
        rowSum += *weight++;
      }
      sum += rowSum;
    }
    return sum;
  }
};

}  // namespace kernels
