#include <gtest/gtest.h>
#include <tarvo/COpticFlow.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

using Rgb = std::array<float, 3>;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr Rgb kGrey = {128, 128, 128};

Rgb colorOf(float x, float y) {
  Rgb color{-1, -1, -1};
  COpticFlow::cartesianToRGB(x, y, color[0], color[1], color[2]);
  return color;
}

Rgb pixel(const CTensor<float>& image, int x, int y) {
  return {image(x, y, 0), image(x, y, 1), image(x, y, 2)};
}

}  // namespace

TEST(VectorColor, FollowsTheWheelWithTruncatedChannels) {
  EXPECT_EQ(colorOf(0, 0), (Rgb{0, 0, 0}));
  // Starts of the sectors 1, 2, 3 and 5.
  EXPECT_EQ(colorOf(1, 0), (Rgb{255, 0, 0}));
  EXPECT_EQ(colorOf(1, 1), (Rgb{255, 0, 255}));
  EXPECT_EQ(colorOf(0, 1), (Rgb{64, 64, 255}));
  EXPECT_EQ(colorOf(-1, 0), (Rgb{0, 255, 0}));
  // 3/4 and 3/2 pi round to just below the sectors 4 and 6 in single precision (pi has the odd mantissa
  // 13176795, and 3 times that needs 26 bits): t is 2^-24 below 1, and 255 is missed by a hair.
  EXPECT_EQ(colorOf(-1, 1), (Rgb{0, 254, 255}));
  EXPECT_EQ(colorOf(0, -1), (Rgb{254, 255, 0}));
  // Middles of the sectors 4, 5 and 6: 127.5 is truncated.
  EXPECT_EQ(colorOf(-1, std::tan(0.3926991F)), (Rgb{0, 255, 127}));
  EXPECT_EQ(colorOf(-1, -1), (Rgb{127, 255, 0}));
  EXPECT_EQ(colorOf(1, -1), (Rgb{255, 127, 0}));
  // Brightness is the length, at most 1.
  EXPECT_EQ(colorOf(0.5F, 0), (Rgb{127, 0, 0}));
  EXPECT_EQ(colorOf(0, 0.5F), (Rgb{32, 32, 127}));
  EXPECT_EQ(colorOf(0, -0.5F), (Rgb{127, 127, 0}));
  EXPECT_EQ(colorOf(0, 1e30F), (Rgb{64, 64, 255}));
}

TEST(VectorColor, AnglesThatRoundToAFullTurnCloseTheWheel) {
  EXPECT_EQ(colorOf(1, -1e-9F), (Rgb{255, 0, 0}));
  EXPECT_EQ(colorOf(1e30F, -1e-30F), (Rgb{255, 0, 0}));
  EXPECT_EQ(colorOf(1, -0.0F), (Rgb{255, 0, 0}));
}

TEST(VectorColor, WithoutDirectionIsAGreyThatNoMotionHas) {
  for (const auto& v : {Rgb{kNaN, 0}, Rgb{0, kNaN}, Rgb{-1, kNaN}, Rgb{kNaN, kNaN}, Rgb{kNaN, kInfinity},
                        Rgb{kInfinity, kInfinity}, Rgb{-kInfinity, kInfinity}}) {
    EXPECT_EQ(colorOf(v[0], v[1]), kGrey) << v[0] << ", " << v[1];
  }
  EXPECT_EQ(colorOf(kInfinity, 1), (Rgb{255, 0, 0}));
  EXPECT_EQ(colorOf(1, kInfinity), (Rgb{64, 64, 255}));
  for (int angle = 0; angle < 360; ++angle) {
    for (int length = 0; length <= 20; ++length) {
      const float phi = static_cast<float>(angle) * 0.01745329F;
      const float b = static_cast<float>(length) * 0.05F;
      const Rgb color = colorOf(b * std::cos(phi), b * std::sin(phi));
      // Saturated: some channel is well below the largest, in every colour that could be taken for the grey.
      const float top = std::max({color[0], color[1], color[2]});
      const float bottom = std::min({color[0], color[1], color[2]});
      EXPECT_LE(bottom, top * 0.26F) << angle << " degrees, length " << b;
      EXPECT_LE(top, 255);
      EXPECT_GE(bottom, 0);
    }
  }
}

TEST(FlowToImage, ScalesVectorsAndResizesTheImage) {
  CTensor<float> flow(3, 2, 2, 0.0F);
  flow(1, 0, 0) = 6;      // longer than sqrt(8) * 2
  flow(2, 0, 1) = 2.83F;  // half of it
  flow(0, 1, 0) = -5.7F;
  flow(1, 1, 1) = kNaN;
  flow(2, 1, 1) = -1.414214F;  // a quarter
  CTensor<float> image(7, 1, 1, 5.0F);
  COpticFlow::flowToImage(flow, image, 2);
  ASSERT_EQ(image.sizeX(), 3);
  ASSERT_EQ(image.sizeY(), 2);
  ASSERT_EQ(image.sizeZ(), 3);
  EXPECT_EQ(pixel(image, 0, 0), (Rgb{0, 0, 0}));
  EXPECT_EQ(pixel(image, 1, 0), (Rgb{255, 0, 0}));
  EXPECT_EQ(pixel(image, 2, 0), (Rgb{32, 32, 127}));
  EXPECT_EQ(pixel(image, 0, 1), (Rgb{0, 255, 0}));
  EXPECT_EQ(pixel(image, 1, 1), kGrey);
  EXPECT_EQ(pixel(image, 2, 1), (Rgb{63, 63, 0}));
  COpticFlow::flowToImage(flow, flow, 2);
  ASSERT_EQ(flow.sizeZ(), 3);
  EXPECT_EQ(pixel(flow, 2, 0), (Rgb{32, 32, 127}));
}

TEST(FlowToImage, TakesEmptyFlowsAndRefusesASinglePlane) {
  CTensor<float> image(2, 2, 3, 7.0F);
  CTensor<float> plane(5, 4, 1, 1.0F);
  testing::internal::CaptureStdout();
  COpticFlow::flowToImage(plane, image, 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "flowToImage: a flow has 2 planes, not 1\n");
  EXPECT_EQ(pixel(image, 1, 1), (Rgb{7, 7, 7}));
  CTensor<float> empty;
  COpticFlow::flowToImage(empty, image, 1);
  EXPECT_EQ(image.size(), 0);
}
