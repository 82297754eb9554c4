
#include "reference/solver_reference.h"
#include "support/test.h"
#include "variational/solver/solvers_plain.h"
#include "variational/systems.h"

namespace {

Planes solvedBy(const TestSystem& system, int iterations, int padding = DevicePlanes::kPadding) {
  const DeviceSystem device(system, padding);
  device.solve(iterations);
  EXPECT_TRUE(device.x.intact());
  EXPECT_TRUE(device.matrix.intact());
  return device.x.values();
}

using kernels::SystemLayout;

Planes solvedPlainly(const TestSystem& system, int iterations, bool once = false) {
  const DeviceSystem device(system);
  const int h = device.h, p = device.x.p();
  variational::plainPCG(device.matrix.get(), device.rhs.get(), device.x.get(), h, device.w, p, iterations,
                        device.cg(), once ? SystemLayout::once(h * p, p) : SystemLayout::full(h * p));
  EXPECT_TRUE(device.x.intact());
  return device.x.values();
}

/// A 1 x 1 system [a b; b c] (x, y) = (f, g) from a start.
TestSystem onePixel(float a, float b, float c, float f, float g, float startU = 0.0f, float startV = 0.0f) {
  TestSystem system(1, 1, 1);
  system.matrix.at(0, 0, kMatrixUU) = a;
  system.matrix.at(0, 0, kMatrixUV) = system.matrix.at(0, 0, kMatrixVU) = b;
  system.matrix.at(0, 0, kMatrixVV) = c;
  system.rhs.values = {f, g};
  system.start.values = {startU, startV};
  return system;
}

}  // namespace

TEST(Pcg, EqualsThePlainLaunchesAndTheReferenceBitForBit) {
  for (const Size size :
       {Size{1, 1}, Size{1, 7}, Size{9, 1}, Size{2, 3}, Size{15, 17}, Size{20, 33}, Size{13, 300}}) {
    const TestSystem system(size.h, size.w, 11);
    const TestSystem once = storedOnce(system);
    for (int iterations = 1; iterations <= 12; ++iterations) {
      SCOPED_TRACE(testing::Message() << size << ", " << iterations << " iterations");
      const Planes expected = reference::solve(system.matrix, system.rhs, system.start, iterations);
      ASSERT_TRUE(exact(solvedPlainly(system, iterations), expected));
      ASSERT_TRUE(exact(solvedPlainly(once, iterations, true), expected)) << "couplings stored once";
      ASSERT_TRUE(exact(solvedBy(system, iterations), expected));
      ASSERT_TRUE(exact(solvedBy(system, iterations, 0), expected)) << "without padding";
    }
  }
}

TEST(Pcg, GivesTheSameBitsForAnyNumberOfThreads) {
  // Large enough to be shared out; 13000 rows of one pixel are chunks without inner columns.
  for (const Size size : {Size{130, 310}, Size{13000, 1}, Size{3, 5000}}) {
    const TestSystem system(size.h, size.w, 12);
    for (const int iterations : {1, 2, 3, 5, 12}) {
      SCOPED_TRACE(testing::Message() << size << ", " << iterations << " iterations");
      const Planes expected = solvedPlainly(system, iterations);
      if (iterations == 3) {
        EXPECT_TRUE(exact(expected, reference::solve(system.matrix, system.rhs, system.start, iterations)));
      }
      withThreads({1, 2, 3}, [&] { ASSERT_TRUE(exact(solvedBy(system, iterations), expected)); });
    }
  }
}

TEST(Pcg, SolvesDiagonalBlocksInOneStep) {
  // [4 1; 1 3] (x, y) = (1, 2): x = 1/11, y = 7/11.
  const Planes one = solvedBy(onePixel(4, 1, 3, 1, 2), 1);
  EXPECT_NEAR(one.at(0, 0, 0), 1.0 / 11.0, 1e-7);
  EXPECT_NEAR(one.at(0, 0, 1), 7.0 / 11.0, 1e-7);
}

TEST(Pcg, LowersTheResidualUntilTheSystemIsSolved) {
  const TestSystem system(21, 37, 5);
  const auto residualAfter = [&](int iterations) {
    const DeviceSystem device(system);
    device.solve(iterations);
    return device.residual();
  };
  const double before = DeviceSystem(system).residual();
  double last = before;
  for (const int iterations : {1, 2, 4, 8, 16, 32}) {
    const double now = residualAfter(iterations);
    EXPECT_LT(now, last) << iterations;
    last = now;
  }
  EXPECT_TRUE(tolerance::solved(residualAfter(200), before));
}

TEST(Pcg, StopsOnceSolvedAndLeavesTheSolutionAlone) {
  TestSystem zero(5, 6, 7);
  zero.rhs = zero.start = Planes(5, 6, 2);
  EXPECT_TRUE(exact(solvedBy(zero, 10), zero.start));
  // r . z = 1e-6 * 4 at the start lies below the threshold, so that the start stays as it is.
  const TestSystem nearly = onePixel(1, 0, 1, 2.002f, 0, 2.0f, 0.0f);
  EXPECT_TRUE(exact(solvedBy(nearly, 10), nearly.start));
  // r . z = 1e-4 does not.
  EXPECT_NEAR(solvedBy(onePixel(1, 0, 1, 2.01f, 0, 2.0f, 0.0f), 10).at(0, 0, 0), 2.01, 1e-6);

  const TestSystem system = onePixel(4, 1, 3, 1, 2);
  const Planes once = solvedBy(system, 1);
  EXPECT_TRUE(exact(solvedBy(system, 50), once));
  EXPECT_TRUE(exact(solvedPlainly(system, 50), once));
}

TEST(Pcg, WithoutIterationsLeavesThePromisedWorkVectors) {
  const TestSystem system(15, 17, 9);
  for (const int iterations : {0, -3}) {
    const DeviceSystem device(system);
    device.solve(iterations);
    EXPECT_TRUE(exact(device.x.values(), system.start));
    EXPECT_TRUE(device.x.intact());
    const Planes r = reference::residual(system.matrix, system.rhs, system.start);
    EXPECT_TRUE(exact(device.r.values(), r));
    EXPECT_TRUE(exact(device.z.values(), reference::precondition(system.matrix, r)));
    EXPECT_TRUE(exact(device.search.values(), device.z.values()));
    EXPECT_TRUE(exact(device.q.values(), Planes(15, 17, 2)));
    EXPECT_TRUE(device.spare.intact());
    // Padding of the work vectors is 0.
    const int p = device.r.p();
    Planes whole(2 * 15, p);
    NDevice::download(whole.data(), device.search.get(), 2 * 15, p, p);
    for (int y = 0; y < 2 * 15; ++y) {
      for (int x = 17; x < p; ++x) ASSERT_EQ(whole.at(x, y), 0.0f) << x << ", " << y;
    }
  }
}

TEST(Pcg, DoesNotPreconditionNearlySingularBlocks) {
  // det = 0.00005: z = r = (1, 1); s.q = 2 * 0.0001 + ..., so one step moves along (1, 1).
  const float b = 0.0f;
  const TestSystem system = onePixel(0.005f, b, 0.01f, 1, 1);
  const DeviceSystem device(system);
  device.solve(0);
  EXPECT_TRUE(exact(device.z.values(), system.rhs));
  const Planes x = solvedBy(system, 1);
  EXPECT_EQ(x.at(0, 0, 0), x.at(0, 0, 1));
  EXPECT_NEAR(x.at(0, 0, 0), 2.0 / 0.015, 1e-3);
  EXPECT_TRUE(exact(x, solvedPlainly(system, 1)));
}

TEST(Pcg, EndsOnSingularAndNotANumberSystems) {
  TestSystem singular(15, 17, 13);
  for (float& value : singular.matrix.values) value = 0.0f;
  TestSystem nan(15, 17, 14);
  nan.rhs.at(3, 4, 0) = kNan;
  TestSystem infinite(15, 17, 15);
  infinite.matrix.at(5, 5, kMatrixUU) = kInf;
  for (const TestSystem* system : {&singular, &nan, &infinite}) {
    for (const int iterations : {1, 2, 5}) {
      EXPECT_TRUE(exact(solvedBy(*system, iterations), solvedPlainly(*system, iterations)));
    }
  }
}

TEST(Pcg, OfHostArraysSolvesAndPrintsItsTime) {
  const TestSystem system(20, 33, 21);
  Planes x = system.start;
  const Report report;
  PCG(system.matrix.data(), system.rhs.data(), x.data(), x.data() + 20 * 33, 20, 33, 7);
  EXPECT_TRUE(exact(x, reference::solve(system.matrix, system.rhs, system.start, 7)));
  ASSERT_EQ(report.lines().size(), 1u);
  float milliseconds = -1.0f;
  char end = 0;
  EXPECT_EQ(std::sscanf(report.lines()[0].c_str(), "Time= %f ms%c", &milliseconds, &end), 2);
  EXPECT_GE(milliseconds, 0.0f);
  EXPECT_EQ(end, '\n');
}

TEST(SolverKernels, EqualTheReferenceBitForBit) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(size);
    TestSystem system(size.h, size.w, 31);
    system.matrix.at(0, 0, kMatrixUU) = 1e-7f;  // a singular block, and a diagonal entry that counts as 1
    const DeviceSystem device(system);
    const int p = device.x.p();
    const float* dv = device.x.plane(1);
    const Planes r = reference::residual(system.matrix, system.rhs, system.start);
    for (const auto kernel : {computeResidual_kernel, computeResidual_opt_kernel}) {
      kernel(device.matrix.get(), device.rhs.get(), device.x.get(), dv, size.h, size.w, p, device.r.get());
      EXPECT_TRUE(exact(device.r.values(), r));
    }
    for (const auto kernel : {mvm_kernel, mvm_opt_kernel}) {
      kernel(device.matrix.get(), device.x.get(), dv, size.h, size.w, p, device.q.get());
      EXPECT_TRUE(exact(device.q.values(), reference::product(system.matrix, system.start)));
    }
    applyBlockJacobiPreconditioner_kernel(device.matrix.get(), device.r.get(), device.z.get(), size.h, size.w,
                                          p);
    EXPECT_TRUE(exact(device.z.values(), reference::precondition(system.matrix, r)));
    applyJacobiPreconditioner_kernel(device.matrix.get(), device.r.get(), device.z.get(), size.h, size.w, p);
    Planes scaled = r;
    forPixels(size.h, size.w, [&](int x, int y) {
      const float uu = system.matrix.at(x, y, kMatrixUU);
      scaled.at(x, y, 0) /= uu < 0.000001f ? 1.0f : uu;
      scaled.at(x, y, 1) /= system.matrix.at(x, y, kMatrixVV);
    });
    EXPECT_TRUE(exact(device.z.values(), scaled));
    for (const DevicePlanes* planes : {&device.r, &device.q, &device.z}) EXPECT_TRUE(planes->intact());
  }
}

TEST(SolverKernels, ReadTheOffDiagonalPlanesTheyAreSaidToRead) {
  TestSystem system = onePixel(2, 3, 5, 0, 0, 1.0f, 10.0f);
  system.matrix.at(0, 0, kMatrixVU) = 7.0f;  // plane 1, apart from plane 2
  const DeviceSystem device(system);
  const auto product = [&](auto kernel) {
    kernel(device.matrix.get(), device.x.get(), device.x.plane(1), 1, 1, device.x.p(), device.q.get());
    return device.q.values().values;
  };
  EXPECT_EQ(product(mvm_opt_kernel), (std::vector<float>{32.0f, 53.0f}));  // 2 + 30, 3 + 50
  EXPECT_EQ(product(mvm_kernel), (std::vector<float>{32.0f, 57.0f}));      // 2 + 30, 7 + 50
}

TEST(SolverKernels, ScaleASystemByTheRootsOfItsDiagonalAndUndoIt) {
  TestSystem system(1, 2, 1);
  const float entries[][5] = {// plane, and both pixels before and after
                              {kMatrixUU, 16, 64, 1, 1},         {kMatrixVU, 10, 2, 0.5f, 0.25f},
                              {kMatrixUV, 10, 2, 0.5f, 0.25f},   {kMatrixVV, 25, 9, 1, 9},
                              {kMatrixEast, -12, 7, -0.375f, 7}, {kMatrixWest, 7, -12, 7, -0.375f},
                              {kMatrixEast + 1, 7, 7, -2.4f, 7}, {kMatrixWest + 1, 7, 7, 7, -2.4f}};
  for (const auto& entry : entries) {
    for (int x = 0; x < 2; ++x) system.matrix.at(x, 0, static_cast<int>(entry[0])) = entry[1 + x];
  }
  system.rhs.values = {8, 16, 10, 3};
  const DeviceSystem device(system);
  const DevicePlanes& s = device.z;
  applyRowScaling_kernel(device.matrix.get(), device.rhs.get(), s.get(), 1, 2, device.x.p());
  const Planes scaled = device.matrix.values();
  for (const auto& entry : entries) {
    for (int x = 0; x < 2; ++x) {
      EXPECT_EQ(scaled.at(x, 0, static_cast<int>(entry[0])), entry[3 + x]) << entry[0] << ", " << x;
    }
  }
  EXPECT_EQ(s.values().values, (std::vector<float>{4, 8, 5, 1})) << "9 is too small to be scaled";
  EXPECT_EQ(device.rhs.values().values, (std::vector<float>{2, 2, 2, 3}));
  device.x.set(Planes(1, 2, 2, 40.0f));
  inverseScaling_kernel(s.get(), device.x.get(), device.x.get(), 1, 2, device.x.p());
  EXPECT_EQ(device.x.values().values, (std::vector<float>{10, 5, 8, 40}));
  EXPECT_TRUE(device.matrix.intact() && device.rhs.intact() && device.x.intact() && s.intact());
}

TEST(SolverKernels, ResidualSumIsTheSquaredNormOfTheResidual) {
  TestSystem system(15, 17, 41);
  const Planes r = reference::residual(system.matrix, system.rhs, system.start);
  float expected = 0.0f;
  for (const float value : r.values) expected += value * value;
  const DeviceSystem device(system);
  EXPECT_EQ(gComputeResidual(device.matrix.get(), device.rhs.get(), device.x.get(), device.x.plane(1),
                             device.r.get(), 15, 17, device.x.p()),
            expected);
  EXPECT_TRUE(exact(device.r.values(), r));
  EXPECT_EQ(computeResidual(system.matrix.data(), system.rhs.data(), system.start.data(),
                            system.start.data() + 15 * 17, 15, 17),
            expected);
}
