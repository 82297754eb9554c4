#include "evaluation/evaluation.h"

#include <gtest/gtest.h>
#include <tarvo/tarvo.h>

#include <cmath>
#include <limits>

namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

struct Pixel {
  float u, v, trueU, trueV;
};

/// One row of pixels.
Evaluation evaluateRow(const std::vector<Pixel>& pixels) {
  const int width = static_cast<int>(pixels.size());
  CTensor<float> flow(width, 1, 2), reference(width, 1, 2);
  for (int x = 0; x < width; ++x) {
    flow(x, 0, 0) = pixels[x].u;
    flow(x, 0, 1) = pixels[x].v;
    reference(x, 0, 0) = pixels[x].trueU;
    reference(x, 0, 1) = pixels[x].trueV;
  }
  return evaluate(flow, reference);
}

}  // namespace

TEST(Evaluation, MeansAndRangesAreThoseWorkedOutByHand) {
  const Evaluation result = evaluateRow({{3, 4, 0, 0},      // error 5
                                         {10, 1, 10, 0},    // error 1, the range from 10 on
                                         {40, 0, 40, 3},    // error 3: longer than 40
                                         {0, -40, 0, -40},  // error 0, still within 10-40
                                         {0, 0, 6, 8},      // error 10
                                         {1, 2, 1, 2}});
  EXPECT_EQ(result.used, 6);
  EXPECT_NEAR(result.epe, 19. / 6, 1e-9);
  EXPECT_NEAR(result.median, 1, 1e-9);
  EXPECT_NEAR(result.percentile99, 10, 1e-9);
  EXPECT_EQ(result.ranges[0].used, 2);
  EXPECT_NEAR(result.ranges[0].epe, 2.5, 1e-9);
  EXPECT_EQ(result.ranges[1].used, 3);
  EXPECT_NEAR(result.ranges[1].epe, 11. / 3, 1e-9);
  EXPECT_EQ(result.ranges[2].used, 1);
  EXPECT_NEAR(result.ranges[2].epe, 3, 1e-9);
  EXPECT_NEAR(result.ranges[2].share, 1. / 6, 1e-9);
}

TEST(Evaluation, QuantilesAreReachedByTheirShareOfThePixels) {
  std::vector<Pixel> pixels;
  for (int i = 0; i < 200; ++i) pixels.push_back({static_cast<float>((i * 7) % 200 + 1), 0, 0, 0});
  EXPECT_EQ(evaluateRow(pixels).median, 100);
  EXPECT_EQ(evaluateRow(pixels).percentile99, 198);
  EXPECT_TRUE(std::isnan(evaluateRow({{1, 1, kNan, 0}}).median));
}

TEST(Evaluation, OutliersAreOffByMoreThan3PixelsAndMoreThan5Percent) {
  EXPECT_EQ(evaluateRow({{3, 0, 0, 0}}).outliers, 0);
  EXPECT_EQ(evaluateRow({{3.01f, 0, 0, 0}}).outliers, 1);
  EXPECT_EQ(evaluateRow({{104, 0, 100, 0}}).outliers, 0);  // 4 %
  EXPECT_EQ(evaluateRow({{106, 0, 100, 0}, {100, 0, 100, 0}}).outliers, 0.5);
}

TEST(Evaluation, UnknownReferencesAreLeftOutAndUnknownFlowCountsAsMissing) {
  const Evaluation result = evaluateRow({{7, 7, 1e9f, 0},
                                         {7, 7, 0, -2e9f},
                                         {7, 7, kNan, 0},
                                         {7, 7, 0, kInfinity},
                                         {kNan, 0, 1e9f, 1e9f},
                                         {kNan, 1, 1, 1},
                                         {1, -kInfinity, 1, 1},
                                         {1e9f, 1, 20, 1},
                                         {1, 2, 1, 1}});
  EXPECT_EQ(result.pixels, 9);
  EXPECT_EQ(result.used, 4);
  EXPECT_EQ(result.missing, 3);
  EXPECT_EQ(result.outliers, 0.75);
  EXPECT_NEAR(result.epe, 1, 1e-9);
  EXPECT_NEAR(result.ranges[0].epe, 1, 1e-9);
  EXPECT_TRUE(std::isnan(result.ranges[1].epe));  // its only pixel is missing
  EXPECT_TRUE(std::isnan(evaluateRow({{1, 1, kNan, 0}}).epe));
}

TEST(Evaluation, AnglesAgreeWithTheLibraryAndAreExactWhenSmall) {
  EXPECT_NEAR(evaluateRow({{1, 0, 0, 0}}).angle, 45, 1e-9);
  EXPECT_EQ(evaluateRow({{0.3f, -7, 0.3f, -7}}).angle, 0);
  EXPECT_NEAR(evaluateRow({{1e-6f, 0, 0, 0}}).angle, 1e-6 * 57.29577951308232, 1e-10);
  CTensor<float> flow(9, 7, 2), reference(9, 7, 2);
  for (int i = 0; i < flow.size(); ++i) {
    flow.data()[i] = static_cast<float>(5 * std::sin(i));
    reference.data()[i] = static_cast<float>(4 * std::cos(3 * i));
  }
  reference(2, 3, 1) = 2e9f;
  EXPECT_NEAR(evaluate(flow, reference).angle, COpticFlow::angularError(flow, reference), 1e-3);
}
