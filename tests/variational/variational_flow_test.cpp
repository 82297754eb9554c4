#include <tarvo/variational.h>

#include <regex>

#include "support/test.h"

namespace {

/// Parameters of the drivers.
struct Settings {
  float sigma = 0.0f, alpha = 30.0f, beta = 300.0f, gamma = 5.0f, eta = 0.95f;
  int fixedPointIterations = 5, solverIterations = 10;
};

Planes flowBy(decltype(variationalFlow) driver, Planes first, Planes second, Planes matches,
              const Settings& s = {}) {
  const int h = first.h, w = first.w;
  const std::size_t n = static_cast<std::size_t>(h) * static_cast<std::size_t>(w);
  Planes flow(h, w, 2, kNan);
  driver(first.data(), second.data(), flow.data(), flow.data() + n, matches.data(), matches.data() + n,
         matches.data() + 2 * n, 1, h, w, 3, s.sigma, s.alpha, s.beta, s.gamma, s.eta, s.fixedPointIterations,
         s.solverIterations, 1);
  return flow;
}

Planes flowOf(const Planes& first, const Planes& second, const Settings& s = {}) {
  const Silence silence;
  return flowBy(variationalFlowTarvo, first, second, Planes(first.h, first.w, 3), s);
}

/// One fixed-point step from zero flow, without warp and matches.
Planes oneStep(Planes first, Planes second, float gamma, int solverIterations) {
  const int h = first.h, w = first.w;
  Planes flow(h, w, 2), valid(h, w, 1, 1.0f), none(h, w);
  NonLinearIteration(first.data(), second.data(), valid.data(), none.data(), none.data(), none.data(), 1,
                     flow.data(), flow.data() + static_cast<std::ptrdiff_t>(h) * w, h, w, 30.0f, 300.0f,
                     gamma, 5, solverIterations, 1.0f);
  return flow;
}

/// The report's lines with every time replaced by "T".
std::vector<std::string> withoutTimes(const Report& report) {
  std::vector<std::string> lines;
  for (const std::string& line : report.lines()) {
    lines.push_back(std::regex_replace(line, std::regex("[0-9]+\\.[0-9]{6}"), "T"));
  }
  return lines;
}

const std::string kNotice = "Increase eta or increase minimum dimension\n";
const std::vector<std::string> kTimes{"Solver time = T ms\n", "MakeMatrix time = T ms\n",
                                      "Interp time = T ms\n", "downsampling time = T ms\n",
                                      "memcpy time = T ms\n"};

std::vector<std::string> reportOf(int scales, int notices, bool smoothing) {
  std::vector<std::string> lines{"# scales = " + std::to_string(scales) + " \n"};
  if (smoothing) lines.push_back("Filters not yet implemented\n");
  lines.insert(lines.end(), static_cast<std::size_t>(notices), kNotice);
  lines.insert(lines.end(), kTimes.begin(), kTimes.end());
  return lines;
}

}  // namespace

TEST(Launches, AreFewForAPassAndOneForASolve) {
  const Planes first = render(48, 64, 0, 0), second = render(48, 64, 1, 0);
  const auto whole = [&](int fixedPointIterations, int solverIterations) {
    Settings s;
    s.fixedPointIterations = fixedPointIterations;
    s.solverIterations = solverIterations;
    const long before = NDevice::launches();
    flowOf(first, second, s);
    return NDevice::launches() - before;
  };
  constexpr int kPasses = 23 + 5;  // ln(15 / 48) / ln(0.95) = 22.7: levels 22 ... 0, and five more
  const long without = whole(0, 10), steps = whole(5, 10) - without;
  EXPECT_LE(without, 14L * kPasses);
  EXPECT_EQ(steps, 3L * 5 * kPasses) << "diffusivity, assembly, solve";
  EXPECT_EQ(whole(5, 200), whole(5, 10)) << "one launch, whatever the iterations";
}

TEST(VariationalFlow, PrintsItsReportAndSkipsLevelsThatDoNotShrink) {
  Settings quick;
  quick.fixedPointIterations = 0;
  struct Case {
    Size size;
    int scales, notices;
  };
  for (const Case& c : {Case{{480, 640}, 67, 0}, Case{{20, 20}, 5, 1}, Case{{16, 16}, 1, 6},
                        Case{{15, 100}, 0, 0}, Case{{10, 10}, 0, 6}, Case{{1, 1}, 0, 6}}) {
    SCOPED_TRACE(c.size);
    const Planes picture(c.size.h, c.size.w, 3, 9.0f), none(c.size.h, c.size.w, 3);
    const Progress progress;
    {
      const Report report;
      EXPECT_TRUE(
          exact(flowBy(variationalFlowTarvo, picture, picture, none, quick), Planes(c.size.h, c.size.w, 2)));
      EXPECT_EQ(withoutTimes(report), reportOf(c.scales, c.notices, false));
    }
    ASSERT_EQ(progress.calls().size(), static_cast<std::size_t>(c.scales + 6));
    for (int i = 0; i < c.scales + 6; ++i) {
      EXPECT_EQ(progress.calls()[static_cast<std::size_t>(i)].done, i + 1);
      EXPECT_EQ(progress.calls()[static_cast<std::size_t>(i)].total, c.scales + 6);
    }
  }
}

TEST(VariationalFlow, TreatsSigmaAsANoticeAtMost) {
  const Planes first = render(20, 21, 0, 0), second = render(20, 21, 1, 0), none(20, 21, 3);
  Settings smoothing;
  smoothing.sigma = 2.0f;
  const Planes expected = flowOf(first, second);
  {
    const Report report;
    EXPECT_TRUE(exact(flowBy(variationalFlowTarvo, first, second, none, smoothing), expected));
    EXPECT_EQ(withoutTimes(report), reportOf(5, 0, false));
  }
  const Report report;
  EXPECT_TRUE(exact(flowBy(variationalFlow, first, second, none, smoothing), expected));
  EXPECT_EQ(withoutTimes(report), reportOf(5, 0, true));
}

TEST(VariationalFlow, WithoutMatchesDoesNotReadTheMatchArguments) {
  const Silence silence;
  Planes first = render(24, 31, 0, 0), second = render(24, 31, 1, 0.5), flow(24, 31, 2);
  variationalFlow(first.data(), second.data(), flow.data(), flow.data() + 24 * 31, nullptr, nullptr, nullptr,
                  1, 24, 31, 3, 0.0f, 30.0f, 300.0f, 5.0f, 0.95f, 5, 10, 1);
  EXPECT_TRUE(exact(flow, flowOf(first, second)));
}

TEST(VariationalFlow, OfTinyPicturesIsZero) {
  for (const Size size : {Size{1, 1}, Size{1, 2}, Size{3, 1}, Size{10, 10}}) {
    const Planes first = randomPlanes(size.h, size.w, 3, 1), second = randomPlanes(size.h, size.w, 3, 2);
    EXPECT_TRUE(exact(flowOf(first, second), Planes(size.h, size.w, 2))) << size;
  }
}

TEST(VariationalFlow, OfPicturesThatOnlyShrinkOnceIsThatLevelsFlow) {
  // 16 x 16: the passes at full resolution are skipped, and level 1 has the pictures' size.
  const Planes first = render(16, 16, 0, 0), second = render(16, 16, 0.5, 0.25);
  const Planes flow = flowOf(first, second);
  EXPECT_TRUE(exact(flow, oneStep(first, second, 5.0f * 0.95f, 10)));
  EXPECT_GT(std::fabs(flow.at(8, 8, 0)), 0.1f);
}

TEST(VariationalFlow, OfLowPicturesIsTheLastPassFromZeroFlow) {
  // 15 x 100: every pass counts as the coarsest one. The last has no matches and twice the solver's
  // iterations.
  const Planes first = render(15, 100, 0, 0), second = render(15, 100, 0.5, 0.25);
  const Silence silence;
  EXPECT_TRUE(exact(flowBy(variationalFlowTarvo, first, second, Planes(15, 100, 3, 2.0f)),
                    oneStep(first, second, 5.0f, 20)));
}

TEST(VariationalFlow, FollowsMatchesWhereThePictureSaysNothing) {
  const Planes flat(60, 70, 3, 100.0f);
  Planes matches(60, 70, 3);
  for (int y = 4; y < 60; y += 4) {
    for (int x = 4; x < 70; x += 4) {
      matches.at(x, y, 0) = 6.0f;
      matches.at(x, y, 1) = -4.0f;
      matches.at(x, y, 2) = 1.0f;
    }
  }
  const Silence silence;
  const Planes flow = flowBy(variationalFlowTarvo, flat, flat, matches);
  EXPECT_TRUE(tolerance::flow(flow, uniformFlow(60, 70, 6.0f, -4.0f), 0, 0.05));
}

TEST(VariationalFlow, EndsOnPicturesOfNotANumbers) {
  Planes first = render(30, 33, 0, 0);
  first.at(10, 10, 1) = kNan;
  Planes wild = render(30, 33, 1, 0);
  for (std::size_t i = 0; i < wild.values.size(); i += 3) wild.values[i] = 1e38f;
  flowOf(first, wild);
  flowOf(Planes(30, 33, 3, kNan), first);
}

TEST(VariationalFlow, OnDevicePlanesKeepsTheCallersPitch) {
  const Planes first = render(40, 45, 0, 0), second = render(40, 45, 1.5, -0.5), matches(40, 45, 3);
  const Planes expected = flowOf(first, second);
  for (const int padding : {0, 5, 100}) {
    const DevicePlanes image1(first, padding), image2(second, padding), match(matches, padding);
    float *u = nullptr, *v = nullptr;
    {
      const Report report;
      gVariationalFlowTarvo(image1.get(), image2.get(), &u, &v, match.get(), match.plane(1), match.plane(2),
                            1, 40, 45, image1.p(), 3, 1.0f, 30.0f, 300.0f, 5.0f, 0.95f, 5, 10, 1);
      const std::vector<std::string> lines = withoutTimes(report);
      EXPECT_EQ(lines, (std::vector<std::string>{"# scales = 19 \n", "Filters not yet implemented\n",
                                                 kTimes[0], kTimes[1], kTimes[2], kTimes[3]}));
    }
    Planes flow(40, 45, 2);
    NDevice::download(flow.data(), u, 40, 45, image1.p());
    NDevice::download(flow.data() + 40 * 45, v, 40, 45, image1.p());
    EXPECT_TRUE(exact(flow, expected)) << "padding " << padding;
    EXPECT_TRUE(image1.intact() && image2.intact() && match.intact());
    NDevice::release(u);
    NDevice::release(v);
  }
}

TEST(VariationalFlow, RefusesWrongArgumentsBeforeAnythingIsTouched) {
  const struct {
    const char *argument, *value;
    void (*change)(Settings& s);
    int h = 5, w = 5, channels = 3;
  } kCases[] = {
      {"width x height", "5 x 0", [](Settings&) {}, 0},
      {"width x height", "-1 x 5", [](Settings&) {}, 5, -1},
      // Fifteen planes of 10000 rows, at most 64 columns wider, are indexed with an int.
      {"width x height", "14253 x 10000", [](Settings&) {}, 10000, 14253},
      {"eta", "nan", [](Settings& s) { s.eta = kNan; }, 10000, 14252},
      {"channels", "1", [](Settings&) {}, 5, 5, 1},
      {"alpha", "nan", [](Settings& s) { s.alpha = kNan; }},
      {"beta", "inf", [](Settings& s) { s.beta = kInf; }},
      {"gamma", "-2.5", [](Settings& s) { s.gamma = -2.5f; }},
      {"eta", "0", [](Settings& s) { s.eta = 0.0f; }},
      {"eta", "1", [](Settings& s) { s.eta = 1.0f; }},
      {"eta", "nan", [](Settings& s) { s.eta = kNan; }},
      {"fixedPointIterations", "-7", [](Settings& s) { s.fixedPointIterations = -7; }},
      {"solverIterations", "-8", [](Settings& s) { s.solverIterations = -8; }},
  };
  for (const auto& c : kCases) {
    for (const auto driver : {variationalFlowTarvo, variationalFlow}) {
      Settings s;
      c.change(s);
      float u = 5.0f, v = 6.0f;
      std::string message = "accepted";
      try {
        driver(nullptr, nullptr, &u, &v, nullptr, nullptr, nullptr, 1, c.h, c.w, c.channels, s.sigma, s.alpha,
               s.beta, s.gamma, s.eta, s.fixedPointIterations, s.solverIterations, 1);
      } catch (const std::invalid_argument& error) {
        message = error.what();
      }
      EXPECT_NE(message.find(c.argument), std::string::npos) << message;
      EXPECT_NE(message.find(c.value), std::string::npos) << message;
      EXPECT_TRUE(u == 5.0f && v == 6.0f) << c.argument;
    }
  }
}

TEST(Objective, IsTheMeanEnergyOfTheFlow) {
  const int h = 15, w = 17;
  const auto energy = [&](const Planes& first, const Planes& second, const Planes& flow) {
    const DevicePlanes a(first), b(second), f(flow);
    return gObjectiveValue(a.get(), b.get(), f.get(), f.plane(1), h, w, a.p(), 5.0f, 1.0f, 30.0f);
  };
  // Nothing differs: every penalty is sqrt(0.000001), in three planes for the first two terms.
  const Planes flat(h, w, 3, 50.0f);
  EXPECT_NEAR(energy(flat, flat, Planes(h, w, 2)), 0.001f * (5.0f * 3.0f + 3.0f + 30.0f), 1e-5f);
  // A constant difference of 4, and a flow that grows by 1 per column (half of that at the sides).
  Planes ramp(h, w, 2);
  for (int i = 0; i < h * w; ++i) ramp.at(i % w, i / w, 0) = static_cast<float>(i % w) - 8.0f;
  const float slopes = (static_cast<float>(w) - 1.0f) / static_cast<float>(w);
  // Where the warp leaves the picture there is no difference, so no ramp pixel counts there: measured without
  // it.
  EXPECT_NEAR(energy(flat, Planes(h, w, 3, 54.0f), Planes(h, w, 2)), 0.015f + 12.0f + 0.03f, 1e-3f);
  EXPECT_NEAR(energy(flat, flat, ramp), 0.001f * 18.0f + 30.0f * slopes, 1e-3f);
}
