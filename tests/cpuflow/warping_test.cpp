#include <gtest/gtest.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/exceptions.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "support/library_state.h"
#include "support/scene.h"
#include "support/tolerance.h"

// The coarse-to-fine scheme of the host.

namespace {

using tolerance::exact;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// A match field and the parameters of a computation.
struct Input {
  CTensor<float> image1, image2, matchU, matchV, matchWeight;
  float sigma = 0.0f, eta = 0.9f;
  int fixedPointIterations = 5;

  Input(const Planes& first, const Planes& second)
      : image1(tensorOf(first)),
        image2(tensorOf(second)),
        matchU(first.w, first.h, 1, 0.0f),
        matchV(matchU),
        matchWeight(matchU) {}

  Planes flow(std::vector<std::string>* lines = nullptr) {
    const Report report;
    CTensor<float> result(2, 2, 7, 9.0f);
    COpticFlow::warpingGeometric(image1, image2, result, matchU, matchV, matchWeight, nullptr, sigma, 30.0f,
                                 300.0f, 5.0f, 0.0f, eta, fixedPointIterations, 10, 1.85f);
    if (lines) *lines = report.lines();
    return planesOf(result);
  }
};

}  // namespace

TEST(HostWarp, TruncatesPositionsAndLeavesTheOutside) {
  CTensor<float> image(3, 3, 2), warped(3, 3, 2, -1.0f), flow(3, 3, 2, 0.0f);
  for (int i = 0; i < 18; ++i) image.data()[i] = static_cast<float>(10 * (i % 3) + i / 3 % 3 + 100 * (i / 9));
  CMatrix<bool> outside(3, 3, true);
  COpticFlow::warp(image, warped, outside, flow);
  for (int i = 0; i < 18; ++i) {
    const bool last = i % 3 == 2 || i / 3 % 3 == 2;
    EXPECT_EQ(warped.data()[i], last ? -1.0f : image.data()[i]);
    EXPECT_EQ(outside.data()[i % 9], last);
  }
  flow(0, 0, 0) = -0.5f;  // extrapolated from the first two columns
  flow(1, 0, 0) = -2.0f;
  flow(2, 0, 0) = -0.75f, flow(2, 0, 1) = 0.25f;
  flow(0, 1, 1) = kNan;
  flow(1, 1, 0) = 1e30f;
  flow(2, 2, 0) = flow(2, 2, 1) = -std::numeric_limits<float>::infinity();
  COpticFlow::warp(image, warped, outside, flow);
  EXPECT_EQ(warped(0, 0, 0), -5.0f);
  EXPECT_EQ(warped(2, 0, 1), 112.75f);
  const bool expected[] = {false, true, false, true, true, true, true, true, true};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(outside.data()[i], expected[i]) << i;
}

TEST(HostFlow, FollowsASmoothShiftAndSaysWhatItDoes) {
  Input input(render(48, 64, 0, 0), render(48, 64, 1.3, -0.8));
  std::vector<std::string> lines;
  const Progress progress;
  const Planes flow = input.flow(&lines);
  EXPECT_TRUE(tolerance::flow(flow, uniformFlow(48, 64, 1.3f, -0.8f), 6, 0.1));
  // ln(15 / 48) / ln(0.9) = 11.04: levels 11 ... 0 and five more.
  ASSERT_EQ(lines.size(), 1u + 17u + 2u);
  EXPECT_EQ(lines[0], "# scales = 11\n");
  EXPECT_EQ(lines[1], "21x16 \n");
  for (std::size_t k = 12; k < 18; ++k) EXPECT_EQ(lines[k], "64x48 \n");
  EXPECT_EQ(lines[18].rfind("time in matrix setup = ", 0), 0u);
  EXPECT_EQ(lines[19].rfind("time in matrix solve = ", 0), 0u);
  EXPECT_EQ(progress.calls().size(), 17u);
  EXPECT_EQ(progress.calls().back().done, progress.calls().back().total);
}

TEST(HostFlow, FollowsMatchesOnEveryLevelButNotInTheFinalPasses) {
  // No texture: only matches act, and they say the same everywhere.
  Input input(Planes(40, 56, 3, 100.0f), Planes(40, 56, 3, 100.0f));
  EXPECT_TRUE(exact(input.flow(), Planes(40, 56, 2, 0.0f)));
  input.matchU = CTensor<float>(56, 40, 1, 6.0f);
  input.matchV = CTensor<float>(56, 40, 1, -3.0f);
  for (int y = 2; y < 40; y += 4) {
    for (int x = 2; x < 56; x += 4) input.matchWeight(x, y, 0) = 1.0f;
  }
  const Planes flow = input.flow();
  EXPECT_TRUE(tolerance::flow(flow, uniformFlow(40, 56, 6.0f, -3.0f), 0, 0.05));
  // A picture that is full resolution at once: matches in the first of six passes only.
  Input tiny(Planes(12, 15, 3, 100.0f), Planes(12, 15, 3, 100.0f));
  tiny.matchU = CTensor<float>(15, 12, 1, 1.0f);
  tiny.matchWeight = tiny.matchU;
  std::vector<std::string> lines;
  EXPECT_TRUE(tolerance::flow(tiny.flow(&lines), uniformFlow(12, 15, 1.0f, 0.0f), 0, 0.05));
  EXPECT_EQ(lines[0], "# scales = 0\n");
  EXPECT_EQ(lines.size(), 1u + 6u + 2u);
}

TEST(HostFlow, SmoothsBeforehandAsItsMaskDoes) {
  Input input(render(20, 24, 0, 0), render(20, 24, 0.5, 0.5));
  const Planes plain = input.flow();
  input.sigma = kNan;
  EXPECT_TRUE(exact(input.flow(), plain));
  input.sigma = 1.0f;
  EXPECT_FALSE(exact(input.flow(), plain));
}

TEST(HostFlow, ReturnsForEverySizeAndForPassesOfEqualSize) {
  for (const Size size :
       {Size{1, 1}, Size{1, 9}, Size{7, 1}, Size{2, 2}, Size{5, 30}, Size{16, 17}, Size{30, 4}}) {
    SCOPED_TRACE(testing::Message() << size.w << " x " << size.h);
    Input input(render(size.h, size.w, 0, 0), render(size.h, size.w, 0.4, 0.1));
    input.eta = 0.95f;
    input.fixedPointIterations = 1;
    const Planes flow = input.flow();
    ASSERT_EQ(flow.values.size(), 2u * static_cast<std::size_t>(size.h * size.w));
    for (const float value : flow.values) ASSERT_TRUE(std::isfinite(value));
  }
  Input one(render(20, 30, 0, 0), render(20, 30, 1, 0));
  one.eta = 1.0f;
  std::vector<std::string> lines;
  EXPECT_TRUE(exact(one.flow(&lines), Planes(20, 30, 2, 0.0f)));
  EXPECT_EQ(lines.size(), 3u) << "every pass is skipped without a message";
}

TEST(HostFlow, RefusesWhatDoesNotFit) {
  const Input good(render(8, 9, 0, 0), render(8, 9, 0, 0));
  const auto with = [&](auto&& change) {
    Input input(good);
    change(input);
    input.flow();
  };
  EXPECT_THROW(with([](Input& in) { in.image2 = CTensor<float>(9, 7, 3, 0.0f); }), ETensorIncompatibleSize);
  EXPECT_THROW(with([](Input& in) { in.matchV = CTensor<float>(8, 8, 1, 0.0f); }), ETensorIncompatibleSize);
  for (const float eta : {0.0f, -1.0f, 1.5f, kNan}) {
    EXPECT_THROW(with([=](Input& in) { in.eta = eta; }), std::invalid_argument) << eta;
  }
  Input empty(Planes(0, 0, 3), Planes(0, 0, 3));
  EXPECT_THROW(empty.flow(), std::invalid_argument);
}
