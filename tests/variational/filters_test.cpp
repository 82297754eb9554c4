#include <tarvo/filters.h>

#include <memory>
#include <numeric>

#include "reference/filter_reference.h"
#include "support/test.h"

namespace {

using Mask = std::vector<float>;

Mask made(float* (*create)(float, int&), float sigma) {
  int size = 0;
  const std::unique_ptr<float[]> taps(create(sigma, size));
  return {taps.get(), taps.get() + size};
}

Mask randomMask(int size) {
  return randomPlanes(1, size, 1, static_cast<std::uint32_t>(size), -1.0f, 1.0f).values;
}

using Filter = void (*)(float*, const float*, int, int, int, const float*, int);

Planes filtered(Filter filter, const Planes& in, const Mask& mask, bool inPlace) {
  const DevicePlanes source(in), target(in.h, in.w);
  const DevicePlanes& out = inPlace ? source : target;
  filter(out.get(), source.get(), in.h, in.w, source.p(), mask.data(), static_cast<int>(mask.size()));
  EXPECT_TRUE(source.intact() && target.intact());
  EXPECT_TRUE(inPlace || exact(source.values(), in));
  return out.values();
}

}  // namespace

TEST(Masks, HaveTheLengthsAndSumsOfTheirFormulas) {
  for (const auto& [sigma, taps] : {std::pair{0.1f, 1u}, {0.5f, 3u}, {1.0f, 7u}, {1.5f, 9u}, {4.0f, 25u}}) {
    const Mask gaussian = made(GaussianFilterCreate, sigma);
    const Mask derivative = made(GaussianDerivativeFilterCreate, sigma);
    ASSERT_EQ(gaussian.size(), taps) << sigma;
    ASSERT_EQ(derivative.size(), taps) << sigma;
    EXPECT_NEAR(std::accumulate(gaussian.begin(), gaussian.end(), 0.0), 1.0, 1e-6);
    double magnitudes = 0.0;
    for (std::size_t i = 0; i < taps; ++i) {
      EXPECT_EQ(gaussian[i], gaussian[taps - 1 - i]);
      EXPECT_EQ(derivative[i], -derivative[taps - 1 - i]);
      magnitudes += std::fabs(static_cast<double>(derivative[i]));
      EXPECT_EQ(derivative[i] > 0.0f, i > taps / 2);
    }
    EXPECT_NEAR(magnitudes, taps > 1 ? 1.0 : 0.0, 1e-6);
  }
  EXPECT_EQ(made(GaussianFilterCreate, 0.1f), Mask{1.0f});
  EXPECT_EQ(made(GaussianDerivativeFilterCreate, 1.0f)[3], 0.0f);
  EXPECT_NEAR(gauss(1.0f, 2.0f), 0.5 * std::exp(-0.125), 1e-7);
  EXPECT_NEAR(gauss_derivative(1.5f, 1.0f), -1.5 * std::exp(-1.125), 1e-6);
}

TEST(Filters, AlongAnAxisEqualTheReferenceForEveryLengthAndSize) {
  for (const Size size : kSizes) {
    const Planes in = randomPlanes(size.h, size.w, 1, 51);
    for (const int taps : {1, 3, 5, 7, 9, 25, 41}) {
      if (size.w > 600 && taps % 4 == 3) continue;  // the largest size with a few lengths only
      SCOPED_TRACE(testing::Message() << size << ", " << taps << " taps");
      const Mask mask = randomMask(taps);
      const Planes alongX = reference::convolveX(in, mask), alongY = reference::convolveY(in, mask);
      for (const bool inPlace : {false, true}) {
        ASSERT_TRUE(exact(filtered(gConvolveX, in, mask, inPlace), alongX));
        ASSERT_TRUE(exact(filtered(gConvolveY, in, mask, inPlace), alongY));
      }
      ASSERT_TRUE(exact(filtered(smallconvx, in, mask, false), alongX));
    }
  }
}

TEST(Filters, OfARampGiveItsSlopeAndHalfOfItAtTheBorders) {
  Planes ramp(2, 17);
  for (int x = 0; x < 17; ++x) ramp.at(x, 0) = ramp.at(x, 1) = 3.0f * static_cast<float>(x);
  const Planes slope = filtered(gConvolveX, ramp, {-0.5f, 0.0f, 0.5f}, false);
  for (int x = 0; x < 17; ++x) EXPECT_EQ(slope.at(x, 1), x == 0 || x == 16 ? 1.5f : 3.0f) << x;
}

TEST(Filters, InTwoDimensionsMirrorTheBordersWithoutRepeatingThem) {
  Planes row(3, 3);
  row.values = {1, 2, 4, 10, 20, 40, 100, 200, 400};
  const DevicePlanes in(row), out(3, 3);
  const Mask left{1, 0, 0};
  gConvolve(out.get(), in.get(), 3, 3, in.p(), left.data(), 1, 3);
  EXPECT_EQ(out.values().values, (Mask{2, 1, 2, 20, 10, 20, 200, 100, 200}));  // column 0 reads column 1
  const Mask below{0, 0, 1};
  gConvolve(out.get(), in.get(), 3, 3, in.p(), below.data(), 3, 1);
  EXPECT_EQ(out.values().values, (Mask{10, 20, 40, 100, 200, 400, 10, 20, 40}));
  gConvolve(out.get(), in.get(), 3, 3, in.p(), left.data(), 0, 3);
  EXPECT_EQ(out.values().values, Mask(9, 0.0f));
  EXPECT_TRUE(in.intact() && out.intact());

  for (const Size size : {Size{4, 5}, Size{15, 17}, Size{20, 33}, Size{130, 150}}) {
    for (const auto& [fh, fw] : {std::pair{1, 7}, {7, 1}, {3, 5}, {7, 7}}) {
      if (fh / 2 >= size.h || fw / 2 >= size.w) continue;
      const Planes source = randomPlanes(size.h, size.w, 1, 61);
      const Mask mask = randomMask(fh * fw);
      const DevicePlanes from(source), to(size.h, size.w);
      gConvolve(to.get(), from.get(), size.h, size.w, from.p(), mask.data(), fh, fw);
      EXPECT_TRUE(exact(to.values(), reference::convolve2d(source, mask, fh, fw, true)));
      EXPECT_TRUE(to.intact());
    }
  }
}

TEST(Filters, InTwoDimensionsNeverReadOutsideNarrowPlanes) {
  // Radius not below the plane: the values are unsettled, but all of them are made of the plane's own pixels.
  for (const Size size : {Size{1, 1}, Size{1, 2}, Size{2, 1}, Size{2, 2}}) {
    const Mask ones(49, 1.0f / 49.0f);
    const DevicePlanes in(Planes(size.h, size.w, 1, 5.0f)), out(size.h, size.w);
    gConvolve(out.get(), in.get(), size.h, size.w, in.p(), ones.data(), 7, 7);
    for (const float value : out.values().values) EXPECT_NEAR(value, 5.0f, 1e-5f);
    EXPECT_TRUE(out.intact());
  }
}

TEST(Filters, GaussianSmoothsAlongBothAxesAndInPlace) {
  ASSERT_EQ(made(GaussianFilterCreate, 0.1f), Mask{1.0f});  // leaves the plane as it is
  for (const Size size : {Size{1, 1}, Size{1, 7}, Size{15, 17}, Size{20, 33}, Size{130, 150}}) {
    for (const float sigma : {0.1f, 1.0f, 4.0f, 8.0f}) {
      const Planes in = randomPlanes(size.h, size.w, 1, 71);
      const Mask mask = made(GaussianFilterCreate, sigma);
      const Planes expected = reference::convolveY(reference::convolveX(in, mask), mask);
      const DevicePlanes source(in), target(size.h, size.w);
      gGaussianFilter(target.get(), source.get(), size.h, size.w, source.p(), sigma);
      EXPECT_TRUE(exact(target.values(), expected));
      gGaussianFilter(source.get(), source.get(), size.h, size.w, source.p(), sigma);
      EXPECT_TRUE(exact(source.values(), expected));
      EXPECT_TRUE(source.intact() && target.intact());
    }
  }
}

TEST(Filters, DerivativeIsAlongItsDirection) {
  const Planes in = randomPlanes(15, 17, 1, 81);
  const Mask mask = made(GaussianDerivativeFilterCreate, 1.0f);
  const DevicePlanes source(in, 0), target(15, 17, 1, 0);
  gGaussianDerivativeFilter(target.get(), source.get(), 15, 17, 1.0f, 'x');
  EXPECT_TRUE(exact(target.values(), reference::convolveX(in, mask)));
  gGaussianDerivativeFilter(target.get(), source.get(), 15, 17, 1.0f, 'y');
  EXPECT_TRUE(exact(target.values(), reference::convolveY(in, mask)));
  EXPECT_TRUE(target.intact());
}

TEST(Filters, OfHostImagesEqualTheReference) {
  for (const Size size : {Size{1, 1}, Size{1, 7}, Size{15, 17}, Size{37, 21}}) {
    const Planes in = randomPlanes(size.h, size.w, 1, 91);
    const Mask gaussian = made(GaussianFilterCreate, 1.5f),
               derivative = made(GaussianDerivativeFilterCreate, 2.0f);
    const Planes smooth = reference::convolveY(reference::convolveX(in, gaussian), gaussian);
    Planes out(size.h, size.w);
    Convolve2d(out.data(), size.h, size.w, in.data(), -1, -1, gaussian.data(), 9, 1);
    EXPECT_TRUE(exact(out, smooth));
    GaussianFilter(out.data(), size.h, size.w, in.data(), -1, -1, 1.5f);
    EXPECT_TRUE(exact(out, smooth));
    GaussianDerivativeFilter(out.data(), size.h, size.w, in.data(), -1, -1, 'x', 2.0f);
    EXPECT_TRUE(exact(out, reference::convolveX(in, derivative)));
    GaussianDerivativeFilter(out.data(), size.h, size.w, in.data(), -1, -1, 'v', 2.0f);
    EXPECT_TRUE(exact(out, reference::convolveY(in, derivative)));
    for (const auto& [fh, fw] : {std::pair{3, 5}, {1, 3}, {9, 7}}) {
      const Mask mask = randomMask(fh * fw);
      out = in;
      Convolve2d(out.data(), size.h, size.w, out.data(), 0, 0, mask.data(), fh, fw);  // in place
      EXPECT_TRUE(exact(out, reference::convolve2d(in, mask, fh, fw, false)));
    }
  }
}

TEST(Filters, RefuseMasksThatAreTooLong) {
  const ThrowOnError throwing;
  const Mask longest(4096, 1.0f / 4096.0f), tooLong(4097, 0.0f);
  const DevicePlanes in(Planes(2, 3, 1, 1.0f)), out(2, 3);
  gConvolveX(out.get(), in.get(), 2, 3, in.p(), longest.data(), 4095);
  EXPECT_NEAR(out.values().at(1, 1), 1.0f, 1e-3f);
  EXPECT_THROW(gConvolveX(out.get(), in.get(), 2, 3, in.p(), tooLong.data(), 4097), DeviceFailure);
  EXPECT_THROW(gConvolve(out.get(), in.get(), 2, 3, in.p(), tooLong.data(), 17, 241), DeviceFailure);
}
