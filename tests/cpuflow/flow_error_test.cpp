#include <gtest/gtest.h>
#include <tarvo/COpticFlow.h>

#include <cmath>
#include <initializer_list>
#include <limits>

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kDegrees = 57.29578F;

struct Vector {
  float u, v;
};

/// A flow of one row.
CTensor<float> row(std::initializer_list<Vector> vectors) {
  CTensor<float> flow(static_cast<int>(vectors.size()), 1, 2);
  int x = 0;
  for (const Vector& vector : vectors) {
    flow(x, 0, 0) = vector.u;
    flow(x, 0, 1) = vector.v;
    ++x;
  }
  return flow;
}

float angularError(CTensor<float> flow, CTensor<float> reference) {
  return COpticFlow::angularError(flow, reference);
}

}  // namespace

TEST(AngularError, IsTheSpaceTimeAngle) {
  EXPECT_FLOAT_EQ(angularError(row({{1, 0}}), row({{0, 0}})), 45);
  EXPECT_FLOAT_EQ(angularError(row({{1, 0}}), row({{-1, 0}})), 90);
  EXPECT_FLOAT_EQ(angularError(row({{0, 1}}), row({{1, 0}})), 60);
  EXPECT_FLOAT_EQ(angularError(row({{0, 1}, {1, 0}}), row({{1, 0}, {-1, 0}})), 75);
  const CTensor<float> flow = row({{0.1F, -7.3F}, {123.4F, 5e3F}, {0, 0}, {1e-20F, 3}});
  EXPECT_EQ(angularError(flow, flow), 0);
  // Cosines that round beyond 1 are limited.
  EXPECT_EQ(angularError(row({{1e10F, 1e10F}}), row({{1e9F, 1e9F}})), 0);
}

TEST(AngularError, PassesOverUnknownPixels) {
  const float over = std::nextafter(1e9F, 2e9F);
  EXPECT_FLOAT_EQ(angularError(row({{1, 0}, {5, 5}, {5, 5}, {5, 5}, {5, 5}}),
                               row({{0, 0}, {over, 0}, {-over, 0}, {0, over}, {0, -over}})),
                  45);
  // 1e9 itself is a motion here: at right angles to the time axis.
  EXPECT_FLOAT_EQ(angularError(row({{0, 0}, {0, 0}}), row({{1e9F, 0}, {0, -1e9F}})), 90);
  EXPECT_TRUE(std::isnan(angularError(row({{1, 2}}), row({{2e9F, 0}}))));
  EXPECT_TRUE(std::isnan(angularError(row({}), row({}))));
  EXPECT_TRUE(std::isnan(angularError(row({{kNaN, 2}, {0, 0}}), row({{1, 0}, {0, 0}}))));
}

TEST(AngularError, ReadsTheReferenceWithItsOwnSizes) {
  CTensor<float> flow(1, 2, 2, 0.0F);
  CTensor<float> large(3, 4, 2, 50.0F);
  for (int y = 0; y < 2; ++y) {
    large(0, y, 0) = 1;
    large(0, y, 1) = 0;
  }
  EXPECT_FLOAT_EQ(COpticFlow::angularError(flow, large), 45);
  // The other way round, what the reference does not cover is unknown.
  EXPECT_FLOAT_EQ(COpticFlow::angularError(large, flow), 45);
  CTensor<float> empty;
  EXPECT_TRUE(std::isnan(COpticFlow::angularError(flow, empty)));
  EXPECT_TRUE(std::isnan(COpticFlow::angularError(empty, flow)));
}

TEST(DirectionError, IsTheMeanAngleBetweenDirections) {
  EXPECT_NEAR(aae(row({{1, 0}}), row({{0, 3}})), 90, 1e-4);
  EXPECT_NEAR(aae(row({{1, 0}, {2, 2}}), row({{0, -3}, {1, 1}})), 45, 1e-4);
  // Across the half turn the short way counts, in both senses.
  EXPECT_NEAR(aae(row({{-1, 0.01F}}), row({{-1, -0.01F}})), 2 * std::atan(0.01F) * kDegrees, 1e-4);
  EXPECT_NEAR(aae(row({{-1, -0.01F}}), row({{-1, 0.01F}})), 2 * std::atan(0.01F) * kDegrees, 1e-4);
  EXPECT_NEAR(aae(row({{-1, 0}}), row({{1, 0}})), 180, 1e-4);
  const CTensor<float> flow = row({{0.1F, -7.3F}, {123.4F, 5e3F}, {0, 0}});
  EXPECT_EQ(aae(flow, flow), 0);
}

TEST(DirectionError, CountsUnknownPixelsInTheDivisorOnly) {
  EXPECT_NEAR(aae(row({{1, 0}, {1, 0}, {1, 0}}), row({{0, 1}, {1e9F, 1}, {0, 2e9F}})), 30, 1e-4);
  EXPECT_EQ(aae(row({{1, 0}, {0, 1}}), row({{1e9F, 0}, {1e9F, 1e9F}})), 0);
  // The test is on the signed value: a large negative component is a motion.
  EXPECT_NEAR(aae(row({{1, 0}, {1, 0}}), row({{-2e9F, 0}, {0, -2e9F}})), 135, 1e-4);
  EXPECT_TRUE(std::isnan(aae(row({{kNaN, 0}}), row({{1, 0}}))));
}

TEST(DirectionError, StaysWithinFlowsThatDoNotMatch) {
  EXPECT_EQ(aae(row({{1, 0}, {1, 0}}), CTensor<float>()), 0);
  EXPECT_EQ(aae(row({{1, 0}, {1, 0}}), CTensor<float>(2, 1, 1, 0.0F)), 0);
  // Three elements cover the first pixel of two: (0, 5) against (1, 0).
  CTensor<float> three(3, 1, 1, 0.0F);
  three(2, 0, 0) = 5;
  EXPECT_NEAR(aae(row({{1, 0}, {1, 0}}), three), 45, 1e-4);
  EXPECT_TRUE(std::isnan(aae(CTensor<float>(2, 1, 1, 0.0F), row({{1, 0}, {1, 0}}))));
  EXPECT_TRUE(std::isnan(aae(CTensor<float>(), CTensor<float>())));
}
