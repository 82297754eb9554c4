#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "support/planes.h"

// All tolerances of the tests. Each compares planes of equal size and names the first or the worst pixel.

namespace tolerance {

inline testing::AssertionResult sameSize(const Planes& a, const Planes& b) {
  if (a.h == b.h && a.w == b.w && a.count == b.count) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "sizes differ: " << a.w << " x " << a.h << " x " << a.count << " and "
                                     << b.w << " x " << b.h << " x " << b.count;
}

/// "(x, y) of plane k" of element i.
inline std::string place(const Planes& planes, std::size_t i) {
  const auto w = static_cast<std::size_t>(planes.w);
  const auto h = static_cast<std::size_t>(planes.h);
  return "(" + std::to_string(i % w) + ", " + std::to_string(i / w % h) + ") of plane " +
         std::to_string(i / w / h);
}

/// The same order of operations: equal bits, not-a-numbers equal to each other.
inline testing::AssertionResult exact(const Planes& result, const Planes& expected) {
  if (const auto sizes = sameSize(result, expected); !sizes) return sizes;
  for (std::size_t i = 0; i < result.values.size(); ++i) {
    const float a = result.values[i];
    const float b = expected.values[i];
    if (std::isnan(a) && std::isnan(b)) continue;
    if (std::memcmp(&a, &b, sizeof a) != 0) {
      return testing::AssertionFailure()
             << std::hexfloat << "pixel " << place(result, i) << " is " << a << ", expected " << b
             << std::defaultfloat << " (" << a << ", " << b << ")";
    }
  }
  return testing::AssertionSuccess();
}

/// Another order of `terms` single-precision operations on values up to the larger norm:
/// |a - b| <= 10 eps sqrt(terms) max |values|.
inline testing::AssertionResult rounding(const Planes& result, const Planes& expected, double terms) {
  if (const auto sizes = sameSize(result, expected); !sizes) return sizes;
  double norm = 0.0;
  for (std::size_t i = 0; i < result.values.size(); ++i) {
    norm = std::max({norm, std::fabs(static_cast<double>(result.values[i])),
                     std::fabs(static_cast<double>(expected.values[i]))});
  }
  const double bound =
      10.0 * static_cast<double>(std::numeric_limits<float>::epsilon()) * std::sqrt(terms) * norm;
  for (std::size_t i = 0; i < result.values.size(); ++i) {
    const double apart =
        std::fabs(static_cast<double>(result.values[i]) - static_cast<double>(expected.values[i]));
    if (!(apart <= bound)) {
      return testing::AssertionFailure() << "pixel " << place(result, i) << " is " << result.values[i]
                                         << ", expected " << expected.values[i] << " within " << bound;
    }
  }
  return testing::AssertionSuccess();
}

/// A linear system counts as solved when its squared residual is this small a part of the one before.
inline testing::AssertionResult solved(double residual, double before) {
  constexpr double kShare = 1e-8;
  if (residual <= kShare * before) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "squared residual " << residual << " of " << before << " before";
}

/// Mean end-point error [pixels] of a flow (planes u, v) against the truth, `border` pixels left out.
inline double endPointError(const Planes& flow, const Planes& truth, int border) {
  double sum = 0.0;
  long pixels = 0;
  for (int y = border; y < flow.h - border; ++y) {
    for (int x = border; x < flow.w - border; ++x, ++pixels) {
      sum += std::hypot(static_cast<double>(flow.at(x, y, 0) - truth.at(x, y, 0)),
                        static_cast<double>(flow.at(x, y, 1) - truth.at(x, y, 1)));
    }
  }
  return sum / static_cast<double>(pixels);
}

inline testing::AssertionResult flow(const Planes& result, const Planes& truth, int border, double bound) {
  if (const auto sizes = sameSize(result, truth); !sizes) return sizes;
  const double error = endPointError(result, truth, border);
  if (error <= bound) return testing::AssertionSuccess();  // false for not-a-number
  return testing::AssertionFailure() << "mean end-point error " << error << " px, bound " << bound;
}

}  // namespace tolerance
