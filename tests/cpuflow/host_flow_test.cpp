#include <tarvo/COpticFlow.h>
#include <tarvo/exceptions.h>
#include <tarvo/timers.h>

#include <functional>

#include "cpuflow/host_system.h"
#include "reference/system_reference.h"
#include "support/test.h"

// One level of the host flow: system, diffusivities, increment.

namespace {

/// Everything that one level is given, of smooth random values.
struct Level {
  CTensor<float> image1, warped2, matchU, matchV, matchWeight, flow;
  CMatrix<float> gconf;

  Level(int w, int h, int candidates = 1)
      : image1(tensorOf(render(h, w, 0, 0))),
        warped2(tensorOf(render(h, w, 0.6, -0.4))),
        matchU(tensorOf(randomPlanes(h, w, candidates, 1, -3.0f, 3.0f))),
        matchV(tensorOf(randomPlanes(h, w, candidates, 2, -3.0f, 3.0f))),
        matchWeight(tensorOf(randomPlanes(h, w, candidates, 3, -1.0f, 1.0f))),
        flow(tensorOf(randomPlanes(h, w, 2, 4, -1.0f, 1.0f))),
        gconf(w, h, 1.0f) {}

  int w() const { return image1.sizeX(); }
  int h() const { return image1.sizeY(); }
  /// Weights of 0 and below: no matches.
  void dropMatches() { matchWeight = CTensor<float>(w(), h(), matchWeight.sizeZ(), -1.0f); }
  void run(int fixedPointIterations, CMatrix<float>* extraTerm = nullptr) {
    COpticFlow::nonlinearIteration(image1, warped2, gconf, matchU, matchV, matchWeight, flow, extraTerm,
                                   30.0f, 300.0f, 5.0f, 0.0f, fixedPointIterations, 5, 1.85f, 0);
  }
  std::vector<std::string> iterate(int fixedPointIterations, CMatrix<float>* extraTerm = nullptr) {
    const Report report;
    run(fixedPointIterations, extraTerm);
    return report.lines();
  }
};

/// The planes at least `border` pixels inside.
Planes inner(const Planes& planes, int border) {
  Planes part(planes.h - 2 * border, planes.w - 2 * border, planes.count);
  forPixels(part.h, part.w, planes.count,
            [&](int x, int y, int k) { part.at(x, y, k) = planes.at(x + border, y + border, k); });
  return part;
}

constexpr float kAlpha = 30.0f, kBeta = 300.0f, kGamma = 5.0f;

/// The system of a level at an increment; `spoil` may change its tensors.
cpuflow::HostSystem systemOf(Level& level, CTensor<float>& increment,
                             const std::function<void(cpuflow::DataTerms&)>& spoil = {}) {
  CMatrix<float> diffX(level.w(), level.h()), diffY(level.w(), level.h());
  COpticFlow::diffusivity(level.flow, increment, diffX, diffY, nullptr, 0.0f);
  cpuflow::DataTerms data(level.image1, level.warped2, level.gconf);
  if (spoil) spoil(data);
  cpuflow::HostSystem system(level.w(), level.h());
  const float a = 1.0f / kAlpha;
  system.assemble({data,
                   {level.matchU, level.matchV, level.matchWeight},
                   level.flow,
                   increment,
                   diffX,
                   diffY,
                   {a, a * kGamma, a * kBeta}});
  return system;
}

}  // namespace

TEST(HostSystem, IsTheDeviceSystemDividedByAlphaInsideTheMasksReach) {
  constexpr int kReach = 4;  // of the 5-tap mask applied twice
  Level level(23, 19);
  level.gconf(11, 9) = 0.0f;
  CTensor<float> increment = tensorOf(randomPlanes(19, 23, 2, 5, -0.5f, 0.5f));
  const cpuflow::HostSystem host = systemOf(level, increment, [](cpuflow::DataTerms& data) {
    data.brightness.row(cpuflow::MotionTensor::T33, 8)[7] = -1000.0f;  // a negative energy counts as 0
  });

  const Planes flow = planesOf(level.flow), step = planesOf(increment);
  Planes match(19, 23, 3), valid(19, 23, 1, 1.0f);
  valid.at(11, 9) = 0.0f;
  const CTensor<float>* const matches[] = {&level.matchU, &level.matchV, &level.matchWeight};
  for (int k = 0; k < 3; ++k) std::copy_n(matches[k]->data(), 19 * 23, &match.at(0, 0, k));
  const Planes u = flow.plane(0), v = flow.plane(1), du = step.plane(0), dv = step.plane(1);
  reference::Tensors tensors =
      reference::structureTensors(planesOf(level.image1), planesOf(level.warped2), valid);
  tensors.data.at(7, 8, 2) = -1000.0f;
  const reference::Diffusivities diff = reference::diffusivities(u, v, du, dv);
  reference::System expected = reference::assemble(
      tensors, reference::factors(tensors, u, v, du, dv, match, kBeta, kGamma), u, v, diff, kAlpha, 0.0f);
  for (Planes* planes : {&expected.matrix, &expected.rhs}) {
    for (float& value : planes->values) value /= kAlpha;
  }
  // The copies behind the couplings, which the device's system does not have.
  for (const int plane : {kMatrixNorth, kMatrixWest, kMatrixEast, kMatrixSouth}) {
    for (int i = 0; i < 19 * 23; ++i) {
      expected.matrix.at(i % 23, i / 23, plane + 1) = expected.matrix.at(i % 23, i / 23, plane);
    }
  }
  Planes matrix(19, 23, 12), rhs(19, 23, 2);
  matrix.values = host.matrix;
  rhs.values = host.rhs;
  for (int plane = 0; plane < 12; ++plane) {
    SCOPED_TRACE(testing::Message() << "plane " << plane);
    EXPECT_TRUE(tolerance::rounding(inner(matrix.plane(plane), kReach),
                                    inner(expected.matrix.plane(plane), kReach), 50));
    if (plane >= kMatrixNorth) {
      EXPECT_TRUE(tolerance::rounding(matrix.plane(plane), expected.matrix.plane(plane), 50))
          << "at the border";
    }
  }
  EXPECT_TRUE(tolerance::rounding(inner(rhs, kReach), inner(expected.rhs, kReach), 200));
}

TEST(HostDiffusivity, IsTheInverseGradientOfTheTotalFlow) {
  CTensor<float> flow(7, 6, 2), increment(7, 6, 2);
  forPixels(6, 7, [&](int x, int y) {
    flow(x, y, 0) = static_cast<float>(x);
    increment(x, y, 0) = static_cast<float>(x + 2 * y);  // u = 2 x + 2 y
    flow(x, y, 1) = static_cast<float>(3 - 4 * y);
    increment(x, y, 1) = 2.0f;  // v = 5 - 4 y
  });
  CMatrix<float> diffX(7, 6), diffY(7, 6), extra(7, 6, 3.0f);
  const auto root = [](float squares) { return 1.0f / std::sqrt(squares); };
  COpticFlow::diffusivity(flow, increment, diffX, diffY, nullptr, 7.0f);
  EXPECT_FLOAT_EQ(diffX(3, 2), root(4.0f + 4.0f + 16.0f));
  EXPECT_FLOAT_EQ(diffY(3, 2), root(4.0f + 4.0f + 16.0f));
  EXPECT_FLOAT_EQ(diffX(3, 0), root(4.0f + 1.0f + 4.0f)) << "mirrored: half the slope along y";
  EXPECT_FLOAT_EQ(diffY(0, 2), root(1.0f + 4.0f + 16.0f)) << "mirrored: half the slope along x";
  EXPECT_FLOAT_EQ(diffX(6, 2), 1000.0f);
  EXPECT_FLOAT_EQ(diffY(3, 5), 1000.0f);

  const Report report;
  COpticFlow::diffusivity(flow, increment, diffX, diffY, &extra, 0.5f);
  EXPECT_FLOAT_EQ(diffX(3, 2), root(24.0f + 4.5f));
  EXPECT_FLOAT_EQ(diffY(3, 5), root(4.5f));
  EXPECT_EQ(report.lines(), std::vector<std::string>{"DF\n"});
}

TEST(HostIteration, AssemblesAndRelaxesInTurns) {
  Level level(22, 18, 2);
  const Level before(level);
  level.iterate(3);
  const Silence silence;
  Level twin(before);
  CTensor<float> increment(22, 18, 2, 0.0f);
  for (int k = 0; k < 3; ++k) {
    const cpuflow::HostSystem system = systemOf(twin, increment);
    SORIterations(system.matrix.data(), system.rhs.data(), &increment(0, 0, 0), &increment(0, 0, 1),
                  increment.data(), 18, 22, 1.85f, 5);
  }
  Planes expected = planesOf(twin.flow);
  for (std::size_t i = 0; i < expected.values.size(); ++i) expected.values[i] += increment.data()[i];
  EXPECT_TRUE(exact(planesOf(level.flow), expected));
}

TEST(HostIteration, LeavesWhatNothingPulls) {
  Level same(21, 17);
  same.warped2 = same.image1;
  same.flow = CTensor<float>(21, 17, 2, 0.0f);
  same.dropMatches();
  same.iterate(3);
  EXPECT_TRUE(exact(planesOf(same.flow), Planes(17, 21, 2, 0.0f)));

  Level blind(21, 17);
  blind.gconf = CMatrix<float>(21, 17, 0.0f);
  blind.flow = CTensor<float>(21, 17, 2, 2.5f);
  blind.dropMatches();
  blind.iterate(3);
  EXPECT_TRUE(exact(planesOf(blind.flow), Planes(17, 21, 2, 2.5f))) << "smoothness keeps a constant flow";

  Level none(9, 7);
  const Planes before = planesOf(none.flow);
  EXPECT_EQ(none.iterate(0), std::vector<std::string>{"9x7 \n"});
  EXPECT_TRUE(exact(planesOf(none.flow), before));
}

TEST(HostIteration, AddsUpCandidatesAndTakesExtraTerms) {
  Level one(20, 15), two(20, 15, 2), doubled(20, 15);
  for (int m = 0; m < 2; ++m) {
    for (const auto& [to, from] : {std::pair{&two.matchU, &one.matchU}, std::pair{&two.matchV, &one.matchV},
                                   std::pair{&two.matchWeight, &one.matchWeight}}) {
      std::copy_n(from->data(), 300, &(*to)(0, 0, m));
    }
  }
  for (int i = 0; i < 300; ++i) doubled.matchWeight.data()[i] *= 2.0f;
  const Planes before = planesOf(two.flow);
  two.iterate(2);
  doubled.iterate(2);
  EXPECT_TRUE(exact(planesOf(two.flow), planesOf(doubled.flow)));
  EXPECT_FALSE(exact(planesOf(two.flow), before));

  Level extra(20, 15);
  CMatrix<float> term(20, 15, 9.0f);
  const double ticks = setup_time;
  const std::vector<std::string> lines = extra.iterate(2, &term);
  EXPECT_GT(setup_time, ticks);
  EXPECT_EQ(lines, (std::vector<std::string>{"20x15 \n", "DF\n", "DF\n"}));
  one.iterate(2);
  EXPECT_TRUE(exact(planesOf(extra.flow), planesOf(one.flow))) << "an extra term of weight 0";
}

TEST(HostIteration, RefusesSizesThatDoNotFitAndKeepsTheFlow) {
  void (*const changes[])(Level&, CMatrix<float>&) = {
      [](Level& level, CMatrix<float>&) { level.matchWeight = CTensor<float>(8, 8, 1, 1.0f); },
      [](Level& level, CMatrix<float>&) { level.warped2 = CTensor<float>(8, 9, 2, 1.0f); },
      [](Level& level, CMatrix<float>&) { level.gconf = CMatrix<float>(9, 8, 1.0f); },
      [](Level& level, CMatrix<float>&) { level.flow = CTensor<float>(8, 9, 1, 1.0f); },
      [](Level&, CMatrix<float>& term) { term = CMatrix<float>(8, 8, 1.0f); },
  };
  for (const auto change : changes) {
    Level level(8, 9);
    CMatrix<float> term(8, 9, 1.0f);
    change(level, term);
    const Planes before = planesOf(level.flow);
    const Report report;
    EXPECT_THROW(level.run(1, &term), ETensorIncompatibleSize);
    EXPECT_TRUE(exact(planesOf(level.flow), before));
    EXPECT_TRUE(report.lines().empty());
  }
}
