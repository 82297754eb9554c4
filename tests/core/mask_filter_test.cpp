#include "core/pattern.h"

namespace {

enum class Axis { kX, kY, kZ };

CTensor<float> filtered(const CTensor<float>& source, const CFilter<float>& mask, Axis axis) {
  CTensor<float> result(source.sizeX(), source.sizeY(), source.sizeZ(), -1);
  if (axis == Axis::kX) NFilter::filter(source, result, mask, 1, 1);
  if (axis == Axis::kY) NFilter::filter(source, result, 1, mask, 1);
  if (axis == Axis::kZ) NFilter::filter(source, result, 1, 1, mask);
  return result;
}

int reflected(int j, int length) {
  while (j < 0 || j >= length) j = j < 0 ? -1 - j : 2 * length - 1 - j;
  return j;
}

/// Compares each output along each axis with its sum, sample by sample.
void expectEverySample(const CTensor<float>& source, const CFilter<float>& mask) {
  for (Axis axis : {Axis::kX, Axis::kY, Axis::kZ}) {
    const CTensor<float> result = filtered(source, mask, axis);
    const auto sample = [&](int x, int y, int z, int offset) {
      if (axis == Axis::kX) return source(reflected(x + offset, source.sizeX()), y, z);
      if (axis == Axis::kY) return source(x, reflected(y + offset, source.sizeY()), z);
      return source(x, y, reflected(z + offset, source.sizeZ()));
    };
    for (int i = 0; i < source.size(); i++) {
      const int x = i % source.sizeX();
      const int y = i / source.sizeX() % source.sizeY();
      const int z = i / source.sizeX() / source.sizeY();
      float sum = 0;
      for (int tap = 0; tap < mask.size(); tap++) sum += mask(tap) * sample(x, y, z, tap - mask.centre());
      ASSERT_EQ(result(x, y, z), sum) << "axis " << static_cast<int>(axis) << " at " << x << ", " << y;
    }
  }
}

}  // namespace

TEST(GaussianMask, IsSymmetricAndSumsToOne) {
  const CSmooth<float> mask(1.0f, 3.0f);
  ASSERT_EQ(mask.size(), 7);
  EXPECT_EQ(mask.centre(), 3);
  // exp(-i^2 / 2) over the sum of the seven values.
  EXPECT_FLOAT_EQ(mask(3), 0.39905028f);
  EXPECT_FLOAT_EQ(mask(4), 0.24203623f);
  EXPECT_FLOAT_EQ(mask(5), 0.054005583f);
  EXPECT_FLOAT_EQ(mask(6), 0.0044330482f);
  for (int i = 0; i < 3; i++) EXPECT_EQ(mask(i), mask(6 - i));
  EXPECT_EQ(CSmooth<float>(0.5f, 3.0f).centre(), 2);
  EXPECT_EQ(CSmooth<float>(0.8f, 1.0f).size(), 3);
}

TEST(GaussianMask, IsOneTapWithoutSmoothingAndRefusesHugeRadii) {
  for (float sigma : {0.0f, -2.0f, std::nanf(""), 1e-30f}) {
    const CSmooth<float> mask(sigma, 3);
    ASSERT_EQ(mask.size(), 1) << sigma;
    EXPECT_EQ(mask(0), 1) << sigma;
  }
  EXPECT_EQ(CSmooth<float>(1, -3).size(), 1);
  EXPECT_THROW(CSmooth<float>(1e10f, 3), std::length_error);
  EXPECT_THROW(CSmooth<float>(std::numeric_limits<float>::infinity(), 3), std::length_error);
}

TEST(DerivativeMask, ExistsForThreeAndFiveTaps) {
  const CDerivative<float> five(5);
  EXPECT_EQ(five.centre(), 2);
  const float expected[] = {0.083333336f, -0.6666667f, 0, 0.6666667f, -0.083333336f};
  for (int i = 0; i < 5; i++) EXPECT_EQ(five(i), expected[i]);
  for (int size : {-1, 0, 1, 4, 7}) EXPECT_THROW(CDerivative<float>{size}, EFilterNotAvailable) << size;
  EXPECT_THROW(CFilter<float>(3, 3), std::invalid_argument);
  EXPECT_THROW(CFilter<float>(0, 1), std::invalid_argument);
  EXPECT_EQ(CFilter<float>(0, 0).size(), 0);
}

TEST(MaskFilter, DifferentiatesARampByHand) {
  const CMatrix<float> ramp = matrix(4, 1, {0, 1, 2, 3});
  CMatrix<float> result(4, 1);
  NFilter::filter(ramp, result, CDerivative<float>(3), 1);
  EXPECT_TRUE(sameElements(result, matrix(4, 1, {0.5f, 1, 1, 0.5f})));
  NFilter::filter(ramp, result, 1, CDerivative<float>(3));
  EXPECT_TRUE(sameElements(result, matrix(4, 1, {0, 0, 0, 0})));
}

TEST(MaskFilter, EqualsTheSumSampleBySampleAlsoForMasksLongerThanLines) {
  CFilter<float> lopsided(4, 0);
  for (int i = 0; i < 4; i++) lopsided(i) = 0.7f - 0.3f * static_cast<float>(i);
  const int sizes[][3] = {{1, 1, 1}, {1, 9, 2}, {9, 1, 1}, {17, 29, 5}, {67, 3, 2}};
  for (const auto& size : sizes) {
    const CTensor<float> source = patternTensor(size[0], size[1], size[2]);
    SCOPED_TRACE(testing::Message() << size[0] << " x " << size[1] << " x " << size[2]);
    expectEverySample(source, lopsided);
    expectEverySample(source, CDerivative<float>(5));
    expectEverySample(source, CSmooth<float>(4, 3));
  }
}

TEST(MaskFilter, TreatsAMatrixAsOnePlane) {
  const CTensor<float> tensor = patternTensor(17, 29, 1);
  const CMatrix<float> source = patternMatrix(17, 29);
  CMatrix<float> result(17, 29);
  const CSmooth<float> mask(2, 3);
  NFilter::filter(source, result, mask, 1);
  EXPECT_TRUE(sameElements(result, filtered(tensor, mask, Axis::kX)));
  NFilter::filter(source, result, 1, mask);
  EXPECT_TRUE(sameElements(result, filtered(tensor, mask, Axis::kY)));
}

TEST(MaskFilter, RefusesResultsOfOtherSizes) {
  const CSmooth<float> mask(1, 3);
  const CTensor<float> source(4, 3, 2, 1);
  CTensor<float> turned(3, 4, 2, 5);
  CTensor<float> flat(4, 3, 1, 5);
  CMatrix<float> row(6, 1, 5);
  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::filter(source, turned, mask, 1, 1), EFilterIncompatibleSize);
  EXPECT_THROW(NFilter::filter(CMatrix<float>(6, 2, 1), row, 1, mask), EFilterIncompatibleSize);
  testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::filter(source, flat, 1, 1, mask), EFilterIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Exception EFilterIncompatibleSize: Initial container size: 24  Resulting container size: 12\n");
  EXPECT_EQ(flat(0, 0, 0), 5);
}
