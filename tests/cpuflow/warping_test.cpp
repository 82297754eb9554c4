#include <tarvo/COpticFlow.h>
#include <tarvo/exceptions.h>
#include <tarvo/timers.h>

#include <climits>
#include <ctime>
#include <stdexcept>

#include "reference/host_flow_reference.h"
#include "support/test.h"

// The coarse-to-fine scheme of the host.

namespace {

struct Input : reference::HostFlowInput {
  Input(const Planes& first, const Planes& second) {
    image1 = tensorOf(first);
    image2 = tensorOf(second);
    matchU = matchV = matchWeight = CTensor<float>(first.w, first.h, 1, 0.0f);
    fixedPointIterations = 5;
    solverIterations = 10;
  }

  void run(CTensor<float>& result) {
    COpticFlow::warpingGeometric(image1, image2, result, matchU, matchV, matchWeight,
                                 extraTerm.size() > 0 ? &extraTerm : nullptr, sigma, alpha, beta, gamma,
                                 extraWeight, eta, fixedPointIterations, solverIterations, omega);
  }
  Planes flow(std::vector<std::string>* lines = nullptr) {
    const Report report;
    CTensor<float> result(2, 2, 7, 9.0f);
    run(result);
    if (lines) *lines = report.lines();
    return planesOf(result);
  }
};

/// Pictures with motion, some of it out of the picture, and sparse matches of two candidates.
Input busyInput(int w, int h) {
  Input input(render(h, w, 0, 0), render(h, w, 3.2, -1.7));
  input.matchU = tensorOf(randomPlanes(h, w, 2, 1, -4.0f, 4.0f));
  input.matchV = tensorOf(randomPlanes(h, w, 2, 2, -4.0f, 4.0f));
  input.matchWeight = tensorOf(randomPlanes(h, w, 2, 3, -8.0f, 2.0f));
  input.fixedPointIterations = 2;
  input.solverIterations = 3;
  return input;
}

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
  flow(2, 2, 0) = flow(2, 2, 1) = -kInf;
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
  EXPECT_NEAR(std::stod(lines[18].substr(23)), setup_time / CLOCKS_PER_SEC, 1e-5);
  EXPECT_NEAR(std::stod(lines[19].substr(23)), sortimer / CLOCKS_PER_SEC, 1e-5);
  EXPECT_EQ(progress.calls().size(), 17u);
  EXPECT_EQ(progress.calls().back().done, progress.calls().back().total);
}

TEST(HostFlow, GivesEveryPassWhatThePlainSchemeDoes) {
  const auto expectTwin = [](Input input, const char* what) {
    const Planes result = input.flow();
    const Silence silence;
    EXPECT_TRUE(exact(result, planesOf(reference::hostFlow(input)))) << what;
  };
  Input input = busyInput(52, 37);
  expectTwin(input, "matches");
  input.sigma = 1.3f;
  expectTwin(input, "smoothed beforehand");
  input.sigma = 0.0f;
  input.extraTerm = CMatrix<float>(52, 37);
  for (int i = 0; i < input.extraTerm.size(); ++i)
    input.extraTerm.data()[i] = static_cast<float>(i % 52) * 0.1f;
  input.extraWeight = 0.7f;
  expectTwin(input, "an extra term");
  input = busyInput(31, 20);
  input.eta = 0.97f;
  expectTwin(input, "passes of equal size in one direction or both");
  expectTwin(busyInput(14, 13), "full resolution at once: the passes add up");
}

TEST(HostFlow, IsPulledByMatchesAlone) {
  // No texture: only matches act, and they say the same everywhere.
  Input input(Planes(40, 56, 3, 100.0f), Planes(40, 56, 3, 100.0f));
  EXPECT_TRUE(exact(input.flow(), Planes(40, 56, 2, 0.0f)));
  input.matchU = CTensor<float>(56, 40, 1, 6.0f);
  input.matchV = CTensor<float>(56, 40, 1, -3.0f);
  for (int y = 2; y < 40; y += 4) {
    for (int x = 2; x < 56; x += 4) input.matchWeight(x, y, 0) = 1.0f;
  }
  EXPECT_TRUE(tolerance::flow(input.flow(), uniformFlow(40, 56, 6.0f, -3.0f), 0, 0.05));
  // Planes behind those of matchU are not looked at.
  const Planes expected = input.flow();
  CTensor<float> more(56, 40, 2, 77.0f);
  std::copy_n(input.matchV.data(), 56 * 40, more.data());
  input.matchV = more;
  EXPECT_TRUE(exact(input.flow(), expected));
}

TEST(HostFlow, ReturnsForEverySizeAndForPassesOfEqualSize) {
  for (const Size size :
       {Size{1, 1}, Size{1, 9}, Size{7, 1}, Size{2, 2}, Size{5, 30}, Size{16, 17}, Size{30, 4}}) {
    SCOPED_TRACE(size);
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
  enum Outcome { kNothing, kWrongSizes, kWrongArgument };
  const auto outcome = [](Input in) {
    CTensor<float> flow(2, 2, 7, 9.0f);
    const Report report;
    Outcome result = kNothing;
    try {
      in.fixedPointIterations = 1;
      in.run(flow);
    } catch (const ETensorIncompatibleSize&) {
      result = kWrongSizes;
    } catch (const std::invalid_argument&) {
      result = kWrongArgument;
    }
    EXPECT_EQ(result == kNothing, !exact(planesOf(flow), Planes(2, 2, 7, 9.0f)));
    EXPECT_EQ(result == kNothing, !report.lines().empty());
    return result;
  };
  const struct {
    Outcome outcome;
    void (*change)(Input& in);
  } kCases[] = {
      {kWrongSizes, [](Input& in) { in.extraTerm = CMatrix<float>(9, 7, 1.0f); }},
      {kWrongSizes, [](Input& in) { in.extraTerm = CMatrix<float>(100, 80, 1.0f); }},
      {kWrongSizes, [](Input& in) { in.matchU = CTensor<float>(9, 8, 2, 0.0f); }},
      {kWrongSizes, [](Input& in) { in.image2 = CTensor<float>(9, 7, 3, 0.0f); }},
      {kWrongSizes, [](Input& in) { in.matchV = CTensor<float>(8, 8, 1, 0.0f); }},
      {kWrongArgument, [](Input& in) { in.solverIterations = INT_MAX; }},
      {kNothing, [](Input& in) { in.solverIterations = INT_MIN; }},
      {kWrongArgument, [](Input& in) { in.eta = 0.0f; }},
      {kWrongArgument, [](Input& in) { in.eta = -1.0f; }},
      {kWrongArgument, [](Input& in) { in.eta = 1.5f; }},
      {kWrongArgument, [](Input& in) { in.eta = kNan; }},
      {kWrongArgument, [](Input& in) { in = Input(Planes(0, 0, 3), Planes(0, 0, 3)); }},
  };
  for (const auto& c : kCases) {
    Input in(render(8, 9, 0, 0), render(8, 9, 0, 0));
    c.change(in);
    EXPECT_EQ(outcome(in), c.outcome) << &c - kCases;
  }
}
