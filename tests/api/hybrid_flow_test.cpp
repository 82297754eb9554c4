#include <tarvo/tarvo.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>

#include "match/cross_check.h"
#include "match/pictures.h"
#include "support/test.h"

// The driver that keeps most of the work on the host, and the comparisons of host and device.

namespace {

struct Outcome {
  Planes flow;
  std::vector<std::string> lines;

  long linesWith(const std::string& start) const {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.rfind(start, 0) == 0; });
  }
};

Outcome hybrid(const Planes& first, const Planes& second, float sigma = 0.0f, float eta = 0.8f,
               int fixedPointIterations = 5) {
  const Report report;
  CTensor<float> a = tensorOf(first), b = tensorOf(second), flow;
  runFlow(a, b, flow, sigma, 30.0f, 300.0f, 5.0f, eta, fixedPointIterations, 10);
  return {planesOf(flow), report.lines()};
}

Planes onDevice(const Planes& first, const Planes& second) {
  const Silence silence;
  CTensor<float> a = tensorOf(first), b = tensorOf(second), flow;
  runFlowGPU(a, b, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.8f, 5, 10);
  return planesOf(flow);
}

/// What crossCheck prints about a match field of the same displacement everywhere, without weights.
Outcome crossChecked(const match::HostFeatures& features, float u, float v) {
  const int w = features.image1.sizeX(), h = features.image1.sizeY();
  const Report report;
  match::crossCheck(features, CTensor<float>(w, h, 1, u), CTensor<float>(w, h, 1, v),
                    CTensor<float>(w, h, 1, 0.0f));
  return {{}, report.lines()};
}

}  // namespace

TEST(HybridFlow, FindsTheDevicePipelinesFlow) {
  const Planes first = picture(120, 150, textured), second = picture(120, 150, textured, 9, -5);
  const Outcome outcome = hybrid(first, second);
  EXPECT_TRUE(tolerance::flow(outcome.flow, uniformFlow(120, 150, 9.0f, -5.0f), 12, 0.05));
  EXPECT_LT(tolerance::endPointError(outcome.flow, onDevice(first, second), 12), 0.05);
  EXPECT_GT(NMatching::lastCounts().keptMatches, 300);
  EXPECT_EQ(outcome.linesWith("Error U") + outcome.linesWith("Error V"), 0) << "both searches find the same";
}

TEST(HybridFlow, IsTheSchemeOnTheDevicesMatchesAndSaysSoInOrder) {
  const Planes first = picture(210, 112, textured), second = picture(210, 112, textured, 3, 1);
  const CTensor<float> image1 = tensorOf(first), image2 = tensorOf(second);
  const match::HostFeatures features(image1, image2);
  const double total = timer_total;
  const Outcome outcome = hybrid(first, second, 0.0f, 0.8f, 2);
  double seconds = -1.0;
  ASSERT_EQ(std::sscanf(outcome.lines.back().c_str(), "Var time = %lf sec\n", &seconds), 1);
  EXPECT_GT(timer_total, total);
  EXPECT_NEAR(seconds, timer_total / 1000.0, 1e-5);

  CTensor<float> u(112, 210, 1), v(u), weight(u), flow;
  const Silence silence;
  HOGMatch(image1.data(), image2.data(), features.hog1.data(), features.hog2.data(),
           features.confidence.data(), weight.data(), u.data(), v.data(), 112, 210);
  COpticFlow::warpingGeometric(image1, image2, flow, u, v, weight, nullptr, 0.0f, 30.0f, 300.0f, 5.0f, 0.0f,
                               0.8f, 2, 10, 1.85f);
  EXPECT_TRUE(exact(outcome.flow, planesOf(flow)));

  char means[200], energies[200];
  std::snprintf(means, sizeof means, "avg = %f \n", static_cast<double>(features.meanConfidence));
  std::snprintf(energies, sizeof energies, "108,108: E1=%f E2=%f E2'=%f \n",
                static_cast<double>(features.energy1(108, 108)),
                static_cast<double>(features.energy2(108, 108)),
                static_cast<double>(features.energy2(72, 206)));
  auto line = outcome.lines.begin();
  for (const std::string& start : std::vector<std::string>{
           means, energies, "GPU Match",
           "0 : ", "1 : ", "9 : ", "# scales = ", "time in matrix solve = ", "z=3 \n", "Filter time = "}) {
    line = std::find_if(line, outcome.lines.end(),
                        [&](const std::string& text) { return text.rfind(start, 0) == 0; });
    EXPECT_NE(line, outcome.lines.end()) << start;
  }
  EXPECT_EQ(outcome.linesWith("10 : "), 0);
  const Outcome small = hybrid(picture(206, 110, textured), picture(206, 110, textured), 0.0f, 0.8f, 1);
  EXPECT_EQ(small.linesWith("108,108"), 0) << "no row 206";
}

TEST(CrossChecking, PrintsWhatDiffersFromTheHostsMatches) {
  const CTensor<float> first = tensorOf(picture(80, 90, textured)),
                       second = tensorOf(picture(80, 90, textured, 4, 2));
  const match::HostFeatures features(first, second);
  const Outcome empty = crossChecked(features, 0.0f, 0.0f), shifted = crossChecked(features, 4.0f, 2.0f);
  // Points whose match lies inside the window are found at exactly (4, 2), with the same neighbourhood.
  int points = 0;
  for (int y = 12; y < 80 - 12 - 2; y += 4) {
    for (int x = 12; x < 90 - 12 - 4; x += 4) {
      points += 0.125f * features.meanConfidence > features.confidence(x, y) ? 0 : 1;
    }
  }
  EXPECT_GT(points, 150);
  for (const char* error : {"Error U", "Error V", "Error W"}) EXPECT_EQ(empty.linesWith(error), points);
  EXPECT_EQ(shifted.linesWith("Error U") + shifted.linesWith("Error V"), 0) << "only weights are missing";
  EXPECT_EQ(shifted.linesWith("Error W"), points);
  int single = 0, several = 0;  // points with one acceptable candidate, and with more
  for (const std::string& line : empty.lines) {
    int x, y, f, from, back, d, secondX, secondY;
    float u;
    double weight, expected, d1, d2;
    if (std::sscanf(line.c_str(), "Error U %d %d : %d %d %d %d %f %d %d\n", &x, &y, &f, &from, &back, &d, &u,
                    &secondX, &secondY) == 9) {
      EXPECT_TRUE(f == x + 4 && from == x && back == x && d == 4 && u == 0.0f) << line;
      const bool alone = secondX == 0 && secondY == 0;
      (alone ? single : several) += 1;
      EXPECT_TRUE(alone || (secondX >= 12 && secondX < 78 && secondY >= 12 && secondY < 68)) << line;
      EXPECT_FALSE(secondX == x + 4 && secondY == y + 2) << line;
    } else if (std::sscanf(line.c_str(), "Error V %d %d : %d %d %d %f\n", &x, &y, &f, &from, &d, &u) == 6) {
      EXPECT_TRUE(f == y + 2 && from == y && d == 2 && u == 0.0f) << line;
    } else if (std::sscanf(line.c_str(), "Error W %d %d : %lf %lf %lf %lf\n", &x, &y, &weight, &expected, &d1,
                           &d2) == 6) {
      EXPECT_TRUE(weight == 0.0 && d1 < d2) << line;
      EXPECT_NEAR(expected, (d2 - d1) / (d1 + 1e-6), 0.02 * expected) << line;
    }
  }
  EXPECT_TRUE(single > 0 && several > single);
}

TEST(CrossChecking, IsGatedByTheConfidenceAsItIs) {
  const CTensor<float> first = tensorOf(picture(60, 64, textured)),
                       second = tensorOf(picture(60, 64, textured, 1, 1));
  match::HostFeatures features(first, second);
  features.meanConfidence = 1.0f;
  for (const bool passes : {true, false}) {  // not truncated to an integer
    features.confidence = CMatrix<float>(64, 60, passes ? 0.125f : std::nextafter(0.125f, 0.0f));
    EXPECT_EQ(crossChecked(features, 0.0f, 0.0f).linesWith("Error U") > 0, passes);
  }
}

TEST(HybridFlow, MatchesOnlyIfMatchingIsOn) {
  const Planes first = picture(60, 70, textured), second = picture(60, 70, textured, 2, 0);
  struct Restore {
    ~Restore() { NMatching::enable(true); }
  };
  Outcome off;
  {
    const Restore restore;
    NMatching::enable(false);
    off = hybrid(first, second);
  }
  EXPECT_EQ(off.linesWith("avg") + off.linesWith("GPU Match"), 0);
  EXPECT_FALSE(exact(off.flow, hybrid(first, second).flow));
}

TEST(HybridFlow, ReturnsForAnyPicture) {
  const auto unclean = [](int x, int y, int c) {
    if (x == 17 && y == 20) return kNan;
    return x == 22 && y == 9 ? kInf : textured(x, y, c);
  };
  hybrid(picture(40, 44, unclean), picture(40, 44, unclean, 1, 1), 0.0f, 0.7f, 2);
  for (const Size size : {Size{1, 1}, Size{2, 9}, Size{12, 12}, Size{24, 25}, Size{25, 26}, Size{30, 8}}) {
    SCOPED_TRACE(size);
    for (const auto& function : {textured, noise, constant}) {
      const Outcome outcome =
          hybrid(picture(size.h, size.w, function), picture(size.h, size.w, function, 1, 0), 0.0f, 0.7f, 1);
      for (const float value : outcome.flow.values) ASSERT_TRUE(std::isfinite(value));
    }
  }
}

TEST(HybridFlow, GivesTheSameBitsForAnyNumberOfThreads) {
  const Planes first = picture(130, 120, textured), second = picture(130, 120, textured, 5, 3);
  Planes expected;
  withThreads({1}, [&] { expected = hybrid(first, second).flow; });
  withThreads({3}, [&] { EXPECT_TRUE(exact(hybrid(first, second).flow, expected)); });
}

TEST(HostAndDevice, ComparisonsRefuseEmptyPictures) {
  EXPECT_THROW(HOGCheck(CTensor<float>()), std::invalid_argument);
  EXPECT_THROW(confCheck(CTensor<float>()), std::invalid_argument);
}

TEST(HostAndDevice, AreShownSideBySide) {
  const auto linesOf = [](void (*check)(CTensor<float>), int h, int w) {
    const Report report;
    check(tensorOf(picture(h, w, textured)));
    return report.lines();
  };
  // "hog end", 15 bins, the bin shown, two blocks of nine rows, an empty line, two sums.
  const std::vector<std::string> lines = linesOf(HOGCheck, 162, 170);
  ASSERT_EQ(lines.size(), 1u + 15u + 1u + 9u + 1u + 1u + 9u + 1u);
  for (int b = 0; b < kHogBins; ++b) {
    int x = 0, y = 0, bin = -1;
    double host = 0.0, device = 0.0;
    ASSERT_EQ(std::sscanf(lines[static_cast<std::size_t>(b) + 1].c_str(), "%d %d %d %lf %lf\n", &x, &y, &bin,
                          &host, &device),
              5);
    EXPECT_TRUE(x == 108 && y == 108 && bin == b);
    EXPECT_NEAR(host, device, (b == 0 || b == 14 ? 0.1 : 1e-4) * host) << b;
  }
  EXPECT_EQ(lines[16], "108 108 5\n");
  double sums[2] = {0.0, 0.0}, mean = 0.0;
  ASSERT_EQ(std::sscanf(lines[27].c_str(), "sum = %lf avg=%lf\n", &sums[0], &mean), 2);
  EXPECT_NEAR(mean, sums[0] / 81.0, 1e-5);
  ASSERT_EQ(std::sscanf(lines[37].c_str(), "sum = %lf avg=%lf\n", &sums[1], &mean), 2);
  EXPECT_NEAR(sums[0], sums[1], 1e-4 * sums[0]);
  EXPECT_EQ(linesOf(HOGCheck, 159, 159).size(), lines.size());
  EXPECT_EQ(linesOf(HOGCheck, 158, 160).size(), 1u + 15u + 1u) << "no row 158";
  EXPECT_EQ(linesOf(HOGCheck, 20, 20).size(), 1u);

  const std::vector<std::string> confidence = linesOf(confCheck, 107, 107);
  ASSERT_EQ(confidence.size(), 7u + 1u + 7u + 1u);
  EXPECT_EQ(confidence[7], "\n");
  double means[2] = {0.0, 0.0};
  ASSERT_EQ(std::sscanf(confidence.back().c_str(), "sums (cpu,gpu) = %lf %lf avg = %lf %lf \n", &sums[0],
                        &sums[1], &means[0], &means[1]),
            4);
  EXPECT_NEAR(means[0], sums[0] / (107.0 * 107.0), 1e-5 * means[0]);
  EXPECT_NEAR(means[0], means[1], 0.05 * means[1]);
  EXPECT_EQ(linesOf(confCheck, 106, 107).size(), 1u);
}
