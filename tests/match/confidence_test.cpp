#include <tarvo/NFilter.h>
#include <tarvo/filters.h>
#include <tarvo/hog.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "reference/hog_reference.h"
#include "support/test.h"

namespace {

Planes confidenceOf(const Planes& image) {
  const DevicePlanes in(image), out(image.h, image.w);
  gComputeConfidence(in.get(), out.get(), image.h, image.w, in.p(), image.count);
  EXPECT_TRUE(in.intact());
  EXPECT_TRUE(out.intact());
  return out.values();
}

Planes hostConfidenceOf(const Planes& image) {
  CMatrix<float> confidence(2, 2);
  computeConfidence(tensorOf(image), CTensor<float>(), confidence);
  Planes result(confidence.sizeY(), confidence.sizeX());
  std::copy(confidence.data(), confidence.data() + confidence.size(), result.values.begin());
  return result;
}

/// 200 on [x0, x1) x [y0, y1), 50 elsewhere.
Planes rectangle(int h, int w, int count, int x0, int x1, int y0, int y1) {
  Planes image(h, w, count, 50.0f);
  for (int k = 0; k < count; ++k) {
    for (int y = y0; y < y1; ++y) {
      for (int x = x0; x < x1; ++x) image.at(x, y, k) = 200.0f;
    }
  }
  return image;
}

/// The host's confidence in plain steps, one pixel after the other.
Planes hostReference(const Planes& image) {
  CTensor<float> tensor =
      tensorOf(reference::gradientTensor(image, [](float a, float b, float sum) { return sum + a * b; }));
  Planes out(image.h, image.w);
  for (int i = 0; i < image.h * image.w; ++i) {
    out.data()[i] = std::sqrt(tensor.data()[i] + tensor.data()[i + 2 * image.h * image.w]);
  }
  NFilter::recursiveSmoothX(tensor, 4.0f);
  NFilter::recursiveSmoothY(tensor, 4.0f);
  forPixels(image.h, image.w, [&](int x, int y) {
    const float xx = tensor(x, y, 0), xy = tensor(x, y, 1), yy = tensor(x, y, 2);
    const float t = (xx + yy) * 0.5f;
    const float q = t * t + xy * xy - yy * xx;
    const double root = std::sqrt(q < 0.0f ? 0.0 : static_cast<double>(q));
    out.at(x, y) = static_cast<float>((static_cast<double>(t) - root) * static_cast<double>(out.at(x, y)));
  });
  return out;
}

float rowSum(const Planes& plane, int y) {
  float lanes[256] = {};
  for (int x = 0; x < plane.w; ++x) lanes[x % 256] += plane.at(x, y);
  for (int half = 128; half > 0; half /= 2) {
    for (int t = 0; t < half; ++t) lanes[t] += lanes[t + half];
  }
  return lanes[0];
}

}  // namespace

TEST(Confidence, EqualsThePlainTwinForAnyNumberOfThreads) {
  for (const Size& size : kSizes) {
    for (const int channels : {1, 3, 4}) {
      SCOPED_TRACE(testing::Message() << size << ", " << channels << " channels");
      const Planes image = randomPlanes(size.h, size.w, channels, 31),
                   expected = reference::confidence(image);
      withThreads({1, 2, 3}, [&] { EXPECT_TRUE(exact(confidenceOf(image), expected)); });
    }
  }
  Planes spoilt = randomPlanes(40, 50, 3, 32);
  spoilt.at(3, 4, 1) = kNan;
  spoilt.at(45, 35, 0) = kInf;
  const Planes result = confidenceOf(spoilt);
  EXPECT_TRUE(exact(result, reference::confidence(spoilt)));
  EXPECT_TRUE(std::isnan(result.at(3, 4)));
  EXPECT_TRUE(std::isfinite(result.at(25, 20)));
}

TEST(Confidence, HostFollowsItsRecipe) {
  for (const Size& size : {Size{1, 1}, Size{9, 1}, Size{37, 21}, Size{60, 80}}) {
    const Planes image = randomPlanes(size.h, size.w, 3, 33);
    EXPECT_TRUE(exact(hostConfidenceOf(image), hostReference(image))) << size;
  }
}

TEST(Confidence, FindsCornersOnly) {
  const Planes square = rectangle(60, 60, 3, 20, 40, 20, 40);
  const Planes edge = rectangle(60, 60, 3, 30, 60, 0, 60);
  for (const auto& of : {confidenceOf, hostConfidenceOf}) {
    const Planes flat = of(Planes(20, 30, 3, 77.0f));
    EXPECT_TRUE(exact(flat, Planes(20, 30)));
    const Planes corners = of(square);
    EXPECT_EQ(corners.at(25, 25), 0.0f);  // no derivatives of its own
    const auto best = std::max_element(corners.values.begin(), corners.values.end()) - corners.values.begin();
    for (const auto at : {best % 60, best / 60}) EXPECT_LE(std::min(std::abs(at - 20), std::abs(at - 39)), 2);
    EXPECT_LT(std::fabs(of(edge).at(30, 30)),
              1e-5f * corners.at(static_cast<int>(best % 60), static_cast<int>(best / 60)));
  }
}

TEST(Confidence, NegativeDiscriminantCountsAsZero) {
  // Two nearly equal eigenvalues: t^2 - d is rounded below 0 at some of the pixels.
  Random random(35);
  const int n = 4096;
  Planes xx(1, n), xy(1, n), yy(1, n), magnitude(1, n, 1, 1.0f);
  for (int x = 0; x < n; ++x) {
    xx.at(x, 0) = random.next(1, 2);
    yy.at(x, 0) = std::nextafter(xx.at(x, 0), 0.0f);
  }
  const DevicePlanes a(xx), b(xy), c(yy), m(magnitude), out(1, n);
  computeConfidence_kernel(a.get(), b.get(), c.get(), m.get(), out.get(), 1, n, a.p());
  const Planes result = out.values();
  int negative = 0;
  for (int x = 0; x < n; ++x) {
    const float t = (xx.at(x, 0) + yy.at(x, 0)) * 0.5f;
    const float product = xx.at(x, 0) * yy.at(x, 0), square = t * t;
    if (square >= product) continue;
    ++negative;
    EXPECT_EQ(result.at(x, 0), t);
  }
  EXPECT_GT(negative, 0);
}

TEST(Confidence, HostArraysGiveTheDeviceResults) {
  const Planes image = randomPlanes(17, 29, 3, 37);
  Planes confidence(17, 29);
  computeConfidenceGPU(image.data(), nullptr, confidence.data(), 17, 29, 3);
  EXPECT_TRUE(exact(confidence, reference::confidence(image)));
}

TEST(Energy, AddsThePlanesInOrder) {
  for (const int bins : {15, 4}) {
    const Planes hog = randomPlanes(21, 37, bins, 38);
    Planes expected(21, 37), result(21, 37);
    forPixels(21, 37, bins, [&](int x, int y, int b) { expected.at(x, y) += hog.at(x, y, b); });
    computeEnergy(hog.data(), result.data(), 21, 37, bins);
    EXPECT_TRUE(exact(result, expected));
  }
}

TEST(PlaneSum, AddsByLanesAndRows) {
  for (const Size& size :
       {Size{1, 1}, Size{3, 255}, Size{2, 256}, Size{5, 257}, Size{1, 513}, Size{483, 637}}) {
    SCOPED_TRACE(size);
    const Planes plane = randomPlanes(size.h, size.w, 1, 39, -1.0f, 1.0f);
    float expected = 0.0f;
    for (int y = 0; y < size.h; ++y) expected += rowSum(plane, y);
    const DevicePlanes on(plane);
    withThreads({1, 3}, [&] { EXPECT_EQ(gCompute2DSum(on.get(), size.h, size.w, on.p()), expected); });
    EXPECT_EQ(compute2DSum(plane.data(), size.h, size.w), expected);
  }
}

TEST(EdgeStrength, WeighsLargestAndMean) {
  EXPECT_EQ(edgeStrength(CTensor<float>(4, 4, 3, 9.0f)), 0.0f);
  CTensor<float> step(4, 1, 2, 0.0f);  // derivatives 0, 60, 60, 0 and 0, 80, 80, 0 along x
  step(2, 0, 0) = step(3, 0, 0) = 120.0f;
  step(2, 0, 1) = step(3, 0, 1) = 160.0f;
  const float strength = (0.7f * 100 + 0.3f * 50) / 100;
  EXPECT_FLOAT_EQ(edgeStrength(step), strength * strength);
}
