#include "synth/scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace {

/// Catmull-Rom weights of the four pixels around a position, t behind the second.
void cubicWeights(double t, double (&w)[4]) {
  w[0] = t * (-0.5 + t * (1 - 0.5 * t));
  w[1] = 1 + t * t * (-2.5 + 1.5 * t);
  w[2] = t * (0.5 + t * (2 - 1.5 * t));
  w[3] = t * t * (-0.5 + 0.5 * t);
}

double sampleAt(const CTensor<float>& image, double x, double y, int z) {
  const int left = static_cast<int>(std::floor(x)), top = static_cast<int>(std::floor(y));
  double wx[4], wy[4], sum = 0;
  cubicWeights(x - left, wx);
  cubicWeights(y - top, wy);
  for (int j = 0; j < 4; ++j) {
    for (int i = 0; i < 4; ++i) {
      const int column = std::clamp(left - 1 + i, 0, image.sizeX() - 1);
      const int row = std::clamp(top - 1 + j, 0, image.sizeY() - 1);
      sum += wx[i] * wy[j] * image(column, row, z);
    }
  }
  return sum;
}

/// Whether everything within 4 pixels lies in the picture, is visible in both frames and moves alike.
bool isCalm(const Rendering& r, int x, int y) {
  constexpr int kReach = 4;
  if (x < kReach || y < kReach || x >= r.flow.sizeX() - kReach || y >= r.flow.sizeY() - kReach) {
    return false;
  }
  for (int j = y - kReach; j <= y + kReach; ++j) {
    for (int i = x - kReach; i <= x + kReach; ++i) {
      const double step = std::hypot(r.flow(i, j, 0) - r.flow(x, y, 0), r.flow(i, j, 1) - r.flow(x, y, 1));
      if (r.visible(i, j, 0) == 0 || step > 1) {
        return false;
      }
    }
  }
  return true;
}

/// Difference of frame 1 from frame 2 looked up at the true motion.
double warpDifference(const Rendering& r, int x, int y) {
  double sum = 0;
  for (int z = 0; z < 3; ++z) {
    sum += std::abs(sampleAt(r.frame2, x + r.flow(x, y, 0), y + r.flow(x, y, 1), z) - r.frame1(x, y, z));
  }
  return sum / 3;
}

}  // namespace

TEST(Synth, WarpingFrame2ByTheTruthGivesFrame1WherePixelsAreVisible) {
  // What is left is the error of cubic interpolation between pixels of the finest detail, 3 pixels wide.
  constexpr double kMean = 0.1, kLargest = 3;  // grey values of 255
  for (const SceneName& scene : sceneNames()) {
    const Rendering r = render(makeScene(scene.name, 320, 240, 3));
    double sum = 0, largest = 0;
    int count = 0;
    for (int y = 0; y < 240; ++y) {
      for (int x = 0; x < 320; ++x) {
        if (isCalm(r, x, y)) {
          const double difference = warpDifference(r, x, y);
          sum += difference;
          largest = std::max(largest, difference);
          ++count;
        }
      }
    }
    EXPECT_GT(count, 320 * 240 / 2) << scene.name;
    EXPECT_LT(sum / count, kMean) << scene.name;
    EXPECT_LT(largest, kLargest) << scene.name;
  }
}

TEST(Synth, CoveredPixelsDoNotLookTheSameInFrame2) {
  const Rendering r = render(makeScene("demo", 640, 480, 1));
  double sum = 0;
  int count = 0;
  for (int y = 0; y < 480; ++y) {
    for (int x = 0; x < 640; ++x) {
      const double u = x + r.flow(x, y, 0), v = y + r.flow(x, y, 1);
      if (r.visible(x, y, 0) == 0 && u >= 0 && v >= 0 && u <= 639 && v <= 479) {
        sum += warpDifference(r, x, y);
        ++count;
      }
    }
  }
  EXPECT_GT(count, 2000);  // five objects that move 7 to 19 pixels
  EXPECT_GT(sum / count, 20);
}

TEST(Synth, MotionsAreInPixelsWhateverTheSize) {
  const auto longest = [](const std::string& name, int width, int height) {
    const Rendering r = render(makeScene(name, width, height, 1));
    double length = 0;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        length = std::max(length, std::hypot(double(r.flow(x, y, 0)), double(r.flow(x, y, 1))));
      }
    }
    return length;
  };
  for (const int scale : {1, 3}) {
    EXPECT_NEAR(longest("shift", 80 * scale, 60 * scale), std::hypot(4.3, 2.6), 1e-5);
    EXPECT_NEAR(longest("rotation", 80 * scale, 60 * scale), 8, 0.1);  // along the arc, not the chord
    EXPECT_NEAR(longest("zoom", 80 * scale, 60 * scale), 8, 1e-4);
    EXPECT_NEAR(longest("large", 80 * scale, 60 * scale), 60, 1e-4);
    EXPECT_NEAR(longest("demo", 80 * scale, 60 * scale), std::hypot(57, 18), 0.1);
  }
}

TEST(Synth, TheScenesOfASequenceGoOnMoving) {
  const Scene scene = makeScene("layers", 61, 37, 5);
  const Rendering pair = render(scene);
  CTensor<float> flow, visible, back;
  const CTensor<float> half = renderFrame(scene, 0.5);
  renderMotion(scene, 0, 0.5, flow, visible);
  renderMotion(scene, 0.5, 0, back, visible);
  long seen = 0;
  for (int y = 3; y < 34; ++y) {
    for (int x = 5; x < 56; ++x) {  // the way there is the way back wherever both see the same layer
      const float u = flow(x, y, 0), v = flow(x, y, 1);
      const int i = static_cast<int>(std::lround(x + u)), j = static_cast<int>(std::lround(y + v));
      if (std::hypot(back(i, j, 0) + u, back(i, j, 1) + v) > 0.1) continue;
      EXPECT_NEAR(pair.flow(x, y, 0), 2 * u, 0.1);
      EXPECT_NEAR(half(i, j, 1), pair.frame1(x, y, 1), 60);  // half a pixel apart at most
      ++seen;
    }
  }
  EXPECT_GT(seen, 1000);
}

TEST(Synth, TheSeedDecidesTheTexturesAndOnlyIt) {
  const Rendering first = render(makeScene("layers", 61, 37, 5)),
                  again = render(makeScene("layers", 61, 37, 5)),
                  other = render(makeScene("layers", 61, 37, 6));
  const auto same = [](const CTensor<float>& a, const CTensor<float>& b) {
    return a.size() == b.size() && std::equal(a.data(), a.data() + a.size(), b.data());
  };
  EXPECT_TRUE(same(first.frame1, again.frame1));
  EXPECT_TRUE(same(first.frame2, again.frame2));
  EXPECT_FALSE(same(first.frame1, other.frame1));
  EXPECT_TRUE(same(first.flow, other.flow));
}

TEST(Synth, EverySizeHasValuesInRangeAndKnownMotion) {
  for (const SceneName& scene : sceneNames()) {
    for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {17, 2}, {37, 21}}) {
      const Rendering r = render(makeScene(scene.name, width, height, 1));
      ASSERT_EQ(r.frame1.size(), 3 * width * height);
      ASSERT_EQ(r.flow.size(), 2 * width * height);
      for (const CTensor<float>* frame : {&r.frame1, &r.frame2}) {
        const auto inRange = [](float value) { return value >= 0 && value <= 255.001f; };
        EXPECT_TRUE(std::all_of(frame->data(), frame->data() + frame->size(), inRange)) << scene.name;
      }
      const auto finite = [](float value) { return std::isfinite(value); };
      EXPECT_TRUE(std::all_of(r.flow.data(), r.flow.data() + r.flow.size(), finite)) << scene.name;
    }
  }
  EXPECT_THROW(makeScene("nothing", 8, 8, 1), std::invalid_argument);
  EXPECT_THROW(makeScene("demo", 0, 8, 1), std::invalid_argument);
}
