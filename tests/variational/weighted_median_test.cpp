#include "variational/filter/weighted_median.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "support/test.h"
#include "variational/filter/weighted_median_kernels.h"

namespace {

/// Planes u, v, three channels, valid.
struct Case {
  Planes planes;
  int radius;
  float sigmaColour = 20.0f, sigmaDistance = 3.0f;

  float weight(int x, int y, int x2, int y2) const {
    float squares = 0.0f;
    for (int k = 2; k < 5; ++k) squares += std::pow(planes.at(x2, y2, k) - planes.at(x, y, k), 2.0f) / 3.0f;
    const float distance = static_cast<float>((x2 - x) * (x2 - x) + (y2 - y) * (y2 - y));
    const float a =
        0.5f * (squares / (sigmaColour * sigmaColour) + distance / (sigmaDistance * sigmaDistance));
    return (planes.at(x2, y2, 5) + 0.01f) * std::pow(std::max(0.0f, 1.0f - a / 16.0f), 16.0f);
  }
  std::vector<std::pair<float, float>> window(int x, int y, int k) const {
    std::vector<std::pair<float, float>> taps;
    for (int y2 = std::max(0, y - radius); y2 <= std::min(planes.h - 1, y + radius); ++y2) {
      for (int x2 = std::max(0, x - radius); x2 <= std::min(planes.w - 1, x + radius); ++x2) {
        taps.emplace_back(planes.at(x2, y2, k), weight(x, y, x2, y2));
      }
    }
    std::sort(taps.begin(), taps.end());
    return taps;
  }
  /// By sorting: whether `value` lies within the stated accuracy below a median of component k at (x, y).
  testing::AssertionResult isMedian(float value, int x, int y, int k) const {
    const auto taps = window(x, y, k), others = window(x, y, 1 - k);
    const float range = taps.back().first - taps.front().first;
    const bool still = range < 0.05f && others.back().first - others.front().first < 0.05f;
    const float accuracy = std::max(1.0f / 512.0f, range / 4096.0f);
    double sum = 0.0, below = 0.0, notAbove = 0.0;
    for (const auto& [f, w] : taps) {
      sum += w;
      if (f < value) below += w;
      if (f < value + accuracy * 1.01f) notAbove += w;
    }
    const double rounding = 1e-4 * sum;
    const bool found =
        std::any_of(taps.begin(), taps.end(), [&](const auto& tap) { return tap.first == value; });
    if (still ? value == planes.at(x, y, k)
              : found && below <= 0.5 * sum + rounding && notAbove >= 0.5 * sum - rounding) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << value << " at " << x << ", " << y << " of plane " << k << " has " << below / sum
           << " of the weight below it, up to " << notAbove / sum << " not above";
  }
};

Planes filtered(const Case& c) {
  const Planes& in = c.planes;
  const DevicePlanes source(in), out(in.h, in.w, 2);
  variational::weightedMedian(out.get(), out.plane(1), source.get(), source.plane(1), source.plane(2),
                              source.plane(5), in.h, in.w, source.p(), c.radius, c.sigmaColour,
                              c.sigmaDistance);
  EXPECT_TRUE(out.intact() && exact(source.values(), in));
  return out.values();
}

Planes byPlainKernel(const Case& c) {
  const int h = c.planes.h, w = c.planes.w, n = h * w;
  const float* in = c.planes.data();
  Planes out(h, w, 2);
  const kernels::WeightedMedian median{in,
                                       in + n,
                                       in + 2 * n,
                                       in + 5 * n,
                                       out.data(),
                                       out.data() + n,
                                       h,
                                       w,
                                       w,
                                       c.radius,
                                       {c.sigmaColour, c.sigmaDistance}};
  forPixels(h, w, [&](int x, int y) { median(x, y); });
  return out;
}

/// A flow of smooth parts and noise, some of it large; colours and trust at random.
Case randomCase(int h, int w, int radius) {
  Case c{randomPlanes(h, w, 6, static_cast<std::uint32_t>(w + radius), 0.0f, 1.0f), radius};
  forPixels(h, w, 6, [&](int x, int y, int k) {
    float& value = c.planes.at(x, y, k);
    if (k < 2)
      value = 0.01f * static_cast<float>(x) + (x % 90 < 45 ? 0.001f : value > 0.9f ? 90.0f : 3.0f) * value;
    if (k >= 2 && k < 5) value *= 60.0f;
    if (k == 5 && y % 20 < 10) value = 0.0f;
  });
  return c;
}

}  // namespace

TEST(WeightedMedian, IsThatOfTheSortedWindowAndOfThePlainKernel) {
  for (const Size size : kSizes) {
    for (const int radius : {1, 2, 3, 4}) {
      SCOPED_TRACE(testing::Message() << size << ", radius " << radius);
      const Case c = randomCase(size.h, size.w, radius);
      const Planes plain = byPlainKernel(c);
      withThreads({1, 3}, [&] { ASSERT_TRUE(exact(filtered(c), plain)); });
      if (size.w > 600) continue;
      forPixels(size.h, size.w, 2,
                [&](int x, int y, int k) { EXPECT_TRUE(c.isMedian(plain.at(x, y, k), x, y, k)); });
    }
  }
}

TEST(WeightedMedian, RemovesAnOutlierAndKeepsTheEdgeOfThePicture) {
  Case c{Planes(20, 70, 6, 1.0f), 3};
  forPixels(20, 70, 5, [&](int x, int, int k) {
    if (x < 35) return;
    for (int y = 0; y < 20; ++y) c.planes.at(x, y, k) = k < 2 ? 9.0f : 200.0f;
  });
  Planes expected(20, 70, 2);
  forPixels(20, 70, 2, [&](int x, int y, int k) { expected.at(x, y, k) = c.planes.at(x, y, k); });
  c.planes.at(20, 9, 0) = -50.0f;
  c.planes.at(36, 0, 1) = 1.0f;
  EXPECT_TRUE(exact(filtered(c), expected));
}

TEST(WeightedMedian, EndsWhereTheFlowIsNotANumber) {
  Case c = randomCase(21, 37, 3);
  for (int i = 0; i < 6; ++i) c.planes.at(5 + i, 8, i % 2) = i < 3 ? kNan : i < 5 ? kInf : -kInf;
  forPixels(9, 9, [&](int x, int y) { c.planes.at(20 + x, y, 1) = kNan; });
  EXPECT_TRUE(exact(filtered(c), byPlainKernel(c)));
}
