#pragma once

#include <tarvo/hog.h>
#include <tarvo/matching.h>
#include <tarvo/picture.h>

#include <climits>

#include "device/kernel.h"
#include "device/sample.h"

namespace match {

constexpr int kSpacing = NMatching::kSpacing;
constexpr int kRadius = NMatching::kRadius;
constexpr int kWindowMargin = NMatching::kMargin;
constexpr int kCells = 9;
constexpr int kCentreCell = 4;
constexpr int kDescriptorSize = kCells * kHogBins;
constexpr int kMostColumns = 2 * kRadius + 1;
constexpr float kRejected = 1e9f;           ///< distances from here on count as none
constexpr float kColourThreshold = 300.0f;  ///< largest sum of squared colour differences
constexpr double kGate = 0.125;             ///< fraction of the mean confidence that a point must reach
constexpr float kAbsent = 1e8f;             ///< a distance above it is absent when the weight is formed
constexpr double kWeightRegulariser = 0.000001;

/// The candidates of a point: columns x0 ... x1 of rows y0 ... y1; empty where x1 < x0 or y1 < y0.
struct Window {
  int x0, x1, y0, y1;
};

TARVO_HOST_DEVICE int smaller(int a, int b) {
  return a < b ? a : b;
}
TARVO_HOST_DEVICE int larger(int a, int b) {
  return a > b ? a : b;
}

TARVO_HOST_DEVICE Window windowAround(int ax, int ay, int h, int w, int margin = kWindowMargin) {
  return {larger(margin, ax - kRadius), smaller(ax + kRadius, w - 1 - margin), larger(margin, ay - kRadius),
          smaller(ay + kRadius, h - 1 - margin)};
}

/// Column and row of cell k relative to the descriptor's point.
TARVO_HOST_DEVICE int cellColumn(int k) {
  return kSpacing * (k % 3 - 1);
}
TARVO_HOST_DEVICE int cellRow(int k) {
  return kSpacing * (k / 3 - 1);
}

/// The integer part; INT_MAX or INT_MIN beyond the integers, 0 for a not-a-number.
TARVO_HOST_DEVICE int integerPart(float value) {
  if (value >= 2147483648.0f) return INT_MAX;
  if (value < -2147483648.0f) return INT_MIN;
  return value == value ? static_cast<int>(value) : 0;
}

/// What one column of a search window offers.
struct Column {
  float best = kRejected;
  float second = kRejected;
  int x = 0;
  int y = 0;
};

}  // namespace match

namespace kernels {

/// Searches point `k` of image A in image B. The call operator is the whole search of one point in its
/// simplest form, column by column. The devices run faster forms of the same steps, with the same results.
struct HOGMatch_kernel {
  const float *imageA, *imageB, *hogA, *hogB, *confidence;
  int forwardPass;
  const float *energyA, *energyB;
  float meanConfidence;
  int *matchX, *matchY;
  float *bestDistance, *secondDistance;
  const int *pointX, *pointY;
  int h, w, p;
  int outW;  // number of points
  static constexpr int outH = 1;

  TARVO_HOST_DEVICE long at(int x, int y) const { return static_cast<long>(y) * p + x; }
  TARVO_HOST_DEVICE long plane(int k) const { return static_cast<long>(k) * h * p; }

  TARVO_HOST_DEVICE bool searched(int ax, int ay) const {
    if (ax == 0 || ay == 0) return false;
    if (forwardPass == 0) return true;
    const int corner = match::integerPart(confidence[at(ax, ay)]);
    return !(static_cast<double>(corner) < static_cast<double>(meanConfidence) * match::kGate);
  }

  /// Element 15 k + b of the descriptor of (x, y): bin b at cell k.
  TARVO_HOST_DEVICE float element(const float* hog, int x, int y, int k, int b) const {
    return hog[plane(b) + at(x + match::cellColumn(k), y + match::cellRow(k))];
  }

  /// Energy and colour test; a comparison with a not-a-number rejects nothing.
  TARVO_HOST_DEVICE bool acceptable(int ax, int ay, int x, int y) const {
    const double eA = energyA[at(ax, ay)];
    const double eB = energyB[at(x, y)];
    if (eB > 2.0 * eA || eA > 2.0 * eB) return false;
    float sum = 0.0f;
    for (int c = 0; c < kPictureChannels; ++c) {
      const float d = imageA[plane(c) + at(ax, ay)] - imageB[plane(c) + at(x, y)];
      sum += d * d;
    }
    return !(sum > match::kColourThreshold);
  }

  /// Sum of squared differences to `descriptor`, bin by bin, within a bin cell by cell. If the sum has
  /// reached `limit` after a whole bin it is returned as it is, since no later term lowers it.
  TARVO_HOST_DEVICE float distance(const float* descriptor, int x, int y, float limit) const {
    float sum = 0.0f;
    for (int b = 0; b < kHogBins && !(sum >= limit); ++b) {
      for (int k = 0; k < match::kCells; ++k) {
        const float d = descriptor[kHogBins * k + b] - element(hogB, x, y, k, b);
        sum += d * d;
      }
    }
    return sum;
  }

  /// Column x of the window, from the top down. kAbandon: gives a distance up once it can change nothing.
  template <bool kAbandon>
  TARVO_HOST_DEVICE match::Column column(const float* descriptor, int ax, int ay, int x, int y0,
                                         int y1) const {
    match::Column own;
    for (int y = y0; y <= y1; ++y) {
      if (!acceptable(ax, ay, x, y)) continue;
      const float limit = kAbandon ? own.second : match::kRejected;
      const float d = distance(descriptor, x, y, limit);
      if (own.best > d) {
        own = {d, own.best, x, y};
      } else if (own.second > d) {
        own.second = d;
      }
    }
    return own;
  }

  TARVO_HOST_DEVICE void operator()(int k, int /*row*/) const {
    const int ax = pointX[k];
    const int ay = pointY[k];
    if (!searched(ax, ay)) return;
    float descriptor[match::kDescriptorSize];
    for (int i = 0; i < match::kDescriptorSize; ++i) {
      descriptor[i] = element(hogA, ax, ay, i / kHogBins, i % kHogBins);
    }
    const match::Window window = match::windowAround(ax, ay, h, w);
    match::Column columns[match::kMostColumns];
    match::Column nearest;
    for (int x = window.x0; x <= window.x1; ++x) {
      match::Column& own = columns[x - window.x0];
      own = column<false>(descriptor, ax, ay, x, window.y0, window.y1);
      if (own.best < nearest.best) nearest = own;
    }
    float second = match::kRejected;
    for (int x = window.x0; x <= window.x1; ++x) {
      const match::Column& own = columns[x - window.x0];
      const float offered = own.best == nearest.best ? own.second : own.best;
      second = offered < second ? offered : second;
    }
    matchX[k] = nearest.x;
    matchY[k] = nearest.y;
    bestDistance[k] = nearest.best;
    secondDistance[k] = second;
  }
};

/// Keeps point k if its backward match lies within one pixel of it: see the exported function.
struct consistencyCheck_kernel {
  const int *pointX, *pointY, *forwardX, *forwardY, *backwardX, *backwardY;
  const float *bestDistance, *secondDistance;
  int count;
  float *weight, *u, *v;
  int h, w, p;
  int outW;  // number of points
  static constexpr int outH = 1;

  TARVO_HOST_DEVICE static bool within(int a, int b) { return a - b <= 1 && b - a <= 1; }
  TARVO_HOST_DEVICE static float weightOf(float d1, float d2) {
    if (d2 > match::kAbsent) return d1 > match::kAbsent ? 0.0f : 1.0f;
    return static_cast<float>(static_cast<double>(d2 - d1) /
                              (static_cast<double>(d1) + match::kWeightRegulariser));
  }
  TARVO_HOST_DEVICE void operator()(int k, int /*row*/) const {
    const int x = pointX[k];
    const int y = pointY[k];
    if (!within(x, backwardX[k]) || !within(y, backwardY[k])) return;
    const long i = static_cast<long>(y) * p + x;
    weight[i] = weightOf(bestDistance[k], secondDistance[k]);
    u[i] = static_cast<float>(forwardX[k] - x);
    v[i] = static_cast<float>(forwardY[k] - y);
  }
};

/// Weight 0 for a match from an unknown pixel, for one that ends on or beside an unknown pixel, and where more
/// than an eighth of the pixels that make the descriptor at either end are unknown.
struct DropUnknown {
  float* weight;
  const float* u;
  const float* v;
  device::View known1, known2;
  int h, w, p;
  static constexpr int kDescribed =
      match::kSpacing + 4;  // of a descriptor: its cells, each of 7 x 7 gradients

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    if (!(weight[i] > 0.0f)) return;
    const int toX = x + static_cast<int>(u[i]), toY = y + static_cast<int>(v[i]);
    const float ends = known1.point(x, y) * known2.point(toX, toY) * known2.point(toX - 1, toY) *
                       known2.point(toX + 1, toY) * known2.point(toX, toY - 1) * known2.point(toX, toY + 1);
    if (!(ends > 0.0f) || !described(known1, x, y) || !described(known2, toX, toY)) weight[i] = 0.0f;
  }
  TARVO_HOST_DEVICE static bool described(const device::View& known, int x, int y) {
    constexpr int kPixels = (2 * kDescribed + 1) * (2 * kDescribed + 1);
    float sum = 0.0f;
    for (int j = y - kDescribed; j <= y + kDescribed; ++j) {
      for (int i = x - kDescribed; i <= x + kDescribed; ++i) sum += known.point(i, j);
    }
    constexpr int kLeast = kPixels - kPixels / 8;
    return sum >= static_cast<float>(kLeast);
  }
};

/// The weight of a match that enough of its neighbours on the grid share, else 0.
struct DropLone {
  float* kept;
  const float *weight, *u, *v;
  int spacing, least;
  int h, w, p;
  static constexpr int kAround = 2;      // in spacings
  static constexpr float kAlike = 4.0f;  // [pixels]

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const long i = static_cast<long>(y) * p + x;
    kept[i] = weight[i] > 0.0f && support(x, y) >= least ? weight[i] : 0.0f;
  }
  TARVO_HOST_DEVICE int support(int x, int y) const {
    const long own = static_cast<long>(y) * p + x;
    const float ownU = u[own], ownV = v[own];
    int count = -1;  // itself
    for (int row = -kAround; row <= kAround; ++row) {
      for (int column = -kAround; column <= kAround; ++column) {
        const int toX = x + column * spacing, toY = y + row * spacing;
        if (toX < 0 || toY < 0 || toX >= w || toY >= h) continue;
        const long i = static_cast<long>(toY) * p + toX;
        const float du = u[i] - ownU, dv = v[i] - ownV;
        if (weight[i] > 0.0f && du * du + dv * dv <= kAlike * kAlike) ++count;
      }
    }
    return count;
  }
};

}  // namespace kernels
