// Sizes of the pyramid, compiled into this program because the library does not export them.
#include "variational/flow/levels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

TEST(Levels, OfAPictureOf640By480) {
  EXPECT_EQ(variational::levelsAbove(480, 640, 0.95f), 67);
  EXPECT_EQ(variational::levelsAbove(640, 480, 0.95f), 67);
  const variational::Level coarsest = variational::levelOf(67, 480, 640, 0.95f);
  EXPECT_EQ(coarsest.w, 21);
  EXPECT_EQ(coarsest.h, 16);
  const variational::Level first = variational::levelOf(1, 480, 640, 0.95f);
  EXPECT_EQ(first.w, 608);
  EXPECT_EQ(first.h, 456);
  for (int index = 67; index >= -5; --index) {
    const variational::Level level = variational::levelOf(index, 480, 640, 0.95f);
    EXPECT_FALSE(level.skipped) << index;
    const variational::Level coarser = variational::levelOf(std::max(index, 0) + 1, 480, 640, 0.95f);
    EXPECT_TRUE(level.wPrev == coarser.w && level.hPrev == coarser.h) << index;
    EXPECT_EQ(level.w == 640 && level.h == 480 && level.scale == 1.0f, index <= 0) << index;
  }
}

TEST(Levels, CountSmallAndExtremePictures) {
  EXPECT_EQ(variational::levelsAbove(20, 20, 0.95f), 5);
  EXPECT_EQ(variational::levelsAbove(16, 16, 0.95f), 1);
  EXPECT_EQ(variational::levelsAbove(15, 100, 0.95f), 0);
  EXPECT_EQ(variational::levelsAbove(10, 10, 0.95f), 0);
  EXPECT_EQ(variational::levelsAbove(1, 1, 0.95f), 0);
  // Quotients that are no number, infinite or negative.
  for (const float eta : {1.0f, 0.0f, -1.0f, 2.0f, std::numeric_limits<float>::quiet_NaN(),
                          std::numeric_limits<float>::infinity()}) {
    EXPECT_EQ(variational::levelsAbove(480, 640, eta), 0) << eta;
    EXPECT_EQ(variational::levelsAbove(15, 15, eta), 0) << eta;
  }
}

TEST(Levels, SkipSizesThatDoNotShrink) {
  const auto skipped = [](int index, int h, int w) {
    return variational::levelOf(index, h, w, 0.95f).skipped;
  };
  EXPECT_TRUE(skipped(1, 20, 20));  // 19 x 19, as level 2
  EXPECT_FALSE(skipped(0, 20, 20));
  EXPECT_TRUE(skipped(0, 16, 16));  // 16 x 16, as level 1
  EXPECT_TRUE(skipped(-5, 16, 16));
  EXPECT_FALSE(skipped(1, 16, 16));  // level 2 is 15 x 15
  EXPECT_FALSE(skipped(0, 15, 100));
  EXPECT_TRUE(skipped(0, 10, 10));
  EXPECT_TRUE(skipped(0, 1, 1));
}
