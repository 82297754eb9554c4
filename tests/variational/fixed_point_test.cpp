#include <tarvo/variational.h>

#include <memory>

#include "reference/solver_reference.h"
#include "reference/system_reference.h"
#include "support/test.h"

namespace {

/// Input of a fixed-point step.
struct Step {
  Planes image1, warped2, gconf, match, u, v;
  float alpha = 30.0f, beta = 300.0f, gamma = 5.0f;

  Step(int h, int w)
      : image1(randomPlanes(h, w, 3, 1)),
        warped2(randomPlanes(h, w, 3, 2)),
        gconf(h, w, 1, 1.0f),
        match(randomPlanes(h, w, 3, 3, -3.0f, 3.0f)),
        u(randomPlanes(h, w, 1, 4, -3.0f, 3.0f)),
        v(randomPlanes(h, w, 1, 5, -3.0f, 3.0f)) {
    const std::size_t n = u.values.size();
    for (std::size_t i = 0; i < n; ++i) {
      if (i % 7 == 3) gconf.values[i] = 0.0f;
      if (i % 5 == 2) match.values[2 * n + i] = kNan;
      if (i % 5 == 4)
        match.values[i] = kNan, match.values[2 * n + i] = kNan;  // what an empty footprint gives
    }
  }
  int h() const { return u.h; }
  int w() const { return u.w; }
  Planes flow() const {
    Planes both(h(), w(), 2);
    std::copy(v.values.begin(), v.values.end(),
              std::copy(u.values.begin(), u.values.end(), both.values.begin()));
    return both;
  }
};

/// The new flow: the step as a list of plain operations.
Planes plainStep(const Step& s, int iterations, int solverIterations, reference::System* last = nullptr) {
  const int h = s.h(), w = s.w();
  const reference::Tensors tensors = reference::structureTensors(s.image1, s.warped2, s.gconf);
  Planes increment(h, w, 2);
  for (int k = 0; k < iterations; ++k) {
    const Planes du = increment.plane(0), dv = increment.plane(1);
    const reference::Diffusivities diff = reference::diffusivities(s.u, s.v, du, dv);
    const reference::Factors factors =
        reference::factors(tensors, s.u, s.v, du, dv, s.match, s.beta, s.gamma);
    const reference::System system = reference::assemble(tensors, factors, s.u, s.v, diff, s.alpha, kNan);
    increment = reference::solve(system.matrix, system.rhs, increment, solverIterations);
    if (last != nullptr) *last = system;
  }
  for (int i = 0; i < h * w; ++i) {
    increment.at(i % w, i / w, 0) += s.u.at(i % w, i / w);
    increment.at(i % w, i / w, 1) += s.v.at(i % w, i / w);
  }
  return increment;
}

/// The same on the device; the work buffers hold not-a-numbers before.
Planes deviceStep(const Step& s, int iterations, int solverIterations, reference::System* last = nullptr) {
  const int h = s.h(), w = s.w();
  const DevicePlanes image1(s.image1), warped2(s.warped2), gconf(s.gconf), match(s.match), flow(s.flow());
  std::vector<std::unique_ptr<DevicePlanes>> vectors, buffers;
  for (int k = 0; k < 5; ++k) vectors.push_back(std::make_unique<DevicePlanes>(h, w, 2));
  for (const int planes : {2, 6, 6, 1, 1, 1, 1, 1, 1, 1, 12, 2}) {
    buffers.push_back(std::make_unique<DevicePlanes>(h, w, planes));
  }
  const auto b = [&](std::size_t k) { return buffers[k]->get(); };
  const CGtmp cg{vectors[0]->get(), vectors[1]->get(), vectors[2]->get(), vectors[3]->get(),
                 vectors[4]->get()};
  const FPtmp fp{b(0), b(1), b(2), b(3), b(4), b(5), b(6), b(7), b(8), b(9), b(10), b(11)};
  gNonLinearIteration(image1.get(), warped2.get(), gconf.get(), match.get(), match.plane(1), match.plane(2),
                      1, flow.get(), flow.plane(1), h, w, flow.p(), 3, s.alpha, s.beta, s.gamma, iterations,
                      solverIterations, 1.0f, cg, fp);
  for (const DevicePlanes* planes : {&image1, &warped2, &gconf, &match, &flow}) {
    EXPECT_TRUE(planes->intact());
  }
  if (last != nullptr) *last = {buffers[10]->values(), buffers[11]->values()};
  return flow.values();
}

}  // namespace

TEST(FixedPoint, StepEqualsTheReferenceBitForBit) {
  for (const Size size : {Size{1, 1}, Size{1, 7}, Size{9, 1}, Size{2, 3}, Size{15, 17}, Size{20, 33}}) {
    for (const int iterations : {1, 3}) {
      SCOPED_TRACE(testing::Message() << size << ", " << iterations << " iterations");
      const Step step(size.h, size.w);
      reference::System system, expected;
      ASSERT_TRUE(exact(deviceStep(step, iterations, 4, &system), plainStep(step, iterations, 4, &expected)));
      int stored = 0;  // a step keeps five planes, one behind the other
      for (const MatrixPlane plane : {kMatrixUU, kMatrixVU, kMatrixVV, kMatrixEast, kMatrixSouth}) {
        ASSERT_TRUE(exact(system.matrix.plane(stored++), expected.matrix.plane(plane)));
      }
      ASSERT_TRUE(exact(system.rhs, expected.rhs));
    }
  }
  for (int w = 14; w <= 52; ++w) {  // wherever vectors begin and end
    const Step step(4, w);
    ASSERT_TRUE(exact(deviceStep(step, 2, 3), plainStep(step, 2, 3))) << w << " columns";
  }
  const Step large(121, 270);
  const Planes expected = plainStep(large, 2, 3);
  withThreads({1, 2, 3}, [&] { EXPECT_TRUE(exact(deviceStep(large, 2, 3), expected)); });
}

TEST(FixedPoint, StepWithoutIterationsOrWithoutAnythingToDoLeavesTheFlow) {
  Step step(15, 17);
  EXPECT_TRUE(exact(deviceStep(step, 0, 4), step.flow()));
  // Identical pictures, no match, zero flow: the right-hand side is 0.
  step.warped2 = step.image1;
  step.match = Planes(15, 17, 3);
  step.u = step.v = Planes(15, 17);
  reference::System system;
  EXPECT_TRUE(exact(deviceStep(step, 2, 4, &system), Planes(15, 17, 2)));
  for (const float value : system.rhs.values) EXPECT_EQ(value, 0.0f);
}

TEST(FixedPoint, StepOfHostArraysIsTheSame) {
  const Step step(20, 33);
  Step s = step;
  const std::size_t n = s.u.values.size();
  NonLinearIteration(s.image1.data(), s.warped2.data(), s.gconf.data(), s.match.data(), s.match.data() + n,
                     s.match.data() + 2 * n, 1, s.u.data(), s.v.data(), 20, 33, s.alpha, s.beta, s.gamma, 2,
                     4, 1.0f);
  EXPECT_TRUE(exact(s.flow(), plainStep(step, 2, 4)));
  EXPECT_TRUE(exact(s.match, step.match));
}

TEST(FixedPointKernels, EqualTheReferenceBitForBit) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(size);
    const Step s(size.h, size.w);
    const int h = size.h, w = size.w;
    const Planes increment = randomPlanes(h, w, 2, 7, -1.0f, 1.0f);
    // Random tensors have negative energies too.
    const reference::Tensors tensors{randomPlanes(h, w, 6, 8, -2.0f, 2.0f),
                                     randomPlanes(h, w, 6, 9, -2.0f, 2.0f)};
    const reference::Diffusivities diff{randomPlanes(h, w, 1, 10, 0.1f, 9.0f),
                                        randomPlanes(h, w, 1, 11, 0.1f, 9.0f)};
    const reference::Factors f = reference::factors(tensors, s.u, s.v, increment.plane(0), increment.plane(1),
                                                    s.match, s.beta, s.gamma);

    const DevicePlanes d(increment), stData(tensors.data), stGrad(tensors.grad), u(s.u), v(s.v),
        match(s.match);
    const DevicePlanes data(h, w), grad(h, w), weight(h, w), rhsU(h, w), rhsV(h, w);
    const int p = u.p();
    DataFactor_kernel(stData.get(), d.get(), d.plane(1), data.get(), h, w, p);
    GradientFactor_kernel(stGrad.get(), d.get(), d.plane(1), grad.get(), h, w, p, s.gamma);
    MatchFactor_kernel(u.get(), v.get(), d.get(), d.plane(1), match.get(), match.plane(1), match.plane(2),
                       weight.get(), rhsU.get(), rhsV.get(), 1, h, w, p, s.beta);
    ASSERT_TRUE(exact(data.values(), f.data));
    ASSERT_TRUE(exact(grad.values(), f.grad));
    ASSERT_TRUE(exact(weight.values(), f.matchWeight));
    ASSERT_TRUE(exact(rhsU.values(), f.matchRhsU));
    ASSERT_TRUE(exact(rhsV.values(), f.matchRhsV));

    const DevicePlanes diffX(diff.x), diffY(diff.y);
    for (const bool scaled : {true, false}) {
      const DevicePlanes matrix(h, w, 12), rhs(h, w, 2);
      (scaled ? MakeMatrix_kernel : MakeMatrix_dummy_kernel)(
          matrix.get(), rhs.get(), data.get(), grad.get(), weight.get(), stData.get(), stGrad.get(),
          rhsU.get(), rhsV.get(), u.get(), v.get(), diffX.get(), diffY.get(), h, w, p, s.gamma, s.alpha);
      const reference::System system =
          reference::assemble(tensors, f, s.u, s.v, diff, scaled ? s.alpha : 1.0f, kNan);
      ASSERT_TRUE(exact(matrix.values(), system.matrix));  // not-a-number still in planes 5, 7, 9 and 11
      ASSERT_TRUE(exact(rhs.values(), system.rhs));
      EXPECT_TRUE(matrix.intact() && rhs.intact());
    }
    for (const DevicePlanes* planes : {&data, &grad, &weight, &rhsU, &rhsV}) EXPECT_TRUE(planes->intact());
  }
}

TEST(FixedPointKernels, MatchFactorAddsCandidatesOfPositiveWeight) {
  Planes one(1, 1), zero(1, 1), matchU(1, 1, 3), matchV(1, 1, 3), c(1, 1, 3);
  one.values = {1};
  matchU.values = {4, 1, 9};  // distances 3 - 4 i.e. 5, and 2
  matchV.values = {4, 2, 9};
  c.values = {0.5f, 2, -1};
  const DevicePlanes u(one), v(zero), d(zero), mu(matchU), mv(matchV), weights(c), weight(1, 1), rhsU(1, 1),
      rhsV(1, 1);
  MatchFactor_kernel(u.get(), v.get(), d.get(), d.get(), mu.get(), mv.get(), weights.get(), weight.get(),
                     rhsU.get(), rhsV.get(), 3, 1, 1, u.p(), 10.0f);
  // 10 * 0.5 / 5 = 1 and 10 * 2 / 2 = 10.
  EXPECT_NEAR(weight.values().values[0], 11.0f, 1e-4f);
  EXPECT_NEAR(rhsU.values().values[0], -3.0f, 1e-5f);
  EXPECT_NEAR(rhsV.values().values[0], -4.0f - 20.0f, 1e-4f);
}

TEST(FixedPointKernels, FactorsOfZeroAndNegativeEnergyAreThousand) {
  for (const float energy : {0.0f, -5.0f}) {
    Planes tensor(1, 1, 6);
    tensor.values = {0, 0, energy, 0, 0, 0};
    const DevicePlanes st(tensor), zero(Planes(1, 1)), factor(1, 1);
    DataFactor_kernel(st.get(), zero.get(), zero.get(), factor.get(), 1, 1, zero.p());
    EXPECT_EQ(factor.values().values[0], 1000.0f);
    GradientFactor_kernel(st.get(), zero.get(), zero.get(), factor.get(), 1, 1, zero.p(), 5.0f);
    EXPECT_EQ(factor.values().values[0], 5000.0f);
  }
}
