#include <tarvo/timers.h>

#include <cstdio>
#include <ctime>

#include "reference/solver_reference.h"
#include "support/test.h"
#include "variational/solver/solve_system.h"
#include "variational/solver/solvers_plain.h"
#include "variational/systems.h"

namespace {

constexpr float kOmega = 1.85f;

Planes relaxedOnDevice(const TestSystem& system, int iterations, float omega) {
  const DeviceSystem device(system);
  gRedBlack(device.matrix.get(), device.rhs.get(), device.x.get(), device.x.plane(1), device.h, device.w,
            device.x.p(), iterations, omega);
  EXPECT_TRUE(device.x.intact());
  return device.x.values();
}

Planes relaxedHostArrays(const TestSystem& system, int iterations, float omega) {
  const int h = system.h(), w = system.w();
  Planes x = system.start;
  SORIterations(system.matrix.data(), system.rhs.data(), x.data(), x.data() + h * w, x.data(), h, w, omega,
                iterations);
  return x;
}

/// By relaxSystem or plainRelaxation, of the five planes of storedOnce.
template <class Solver>
Planes relaxedOnce(const TestSystem& once, int sweeps, const Solver& solver) {
  const DeviceSystem device(once);
  FPtmp fp{};
  fp.matrix = device.matrix.get();
  fp.rhs = device.rhs.get();
  fp.increment = device.x.get();
  solver(fp, device.h, device.w, device.x.p(), sweeps, kOmega);
  EXPECT_TRUE(device.x.intact() && device.matrix.intact());
  return device.x.values();
}

double residualOf(const TestSystem& system, const Planes& x) {
  return static_cast<double>(
      computeResidual(system.matrix.data(), system.rhs.data(), x.data(), x.data() + x.h * x.w, x.h, x.w));
}

}  // namespace

TEST(Relaxation, HasTheSameBitsInEveryForm) {
  for (const Size size : {Size{1, 1}, Size{1, 8}, Size{9, 1}, Size{2, 2}, Size{3, 3}, Size{16, 64},
                          Size{21, 37}, Size{130, 257}}) {
    SCOPED_TRACE(size);
    TestSystem system(size.h, size.w, 5);
    system.matrix.at(0, 0, kMatrixVU) = 1e6f;  // not the plane that is read
    // Determinants on both sides of 0.0001, which no float hits.
    for (const auto& [x, uu] :
         {std::pair{size.w / 2, 0.0001f}, {size.w - 1, std::nextafter(0.0001f, 1.0f)}}) {
      system.matrix.at(x, size.h / 2, kMatrixUV) = 0.0f;
      system.matrix.at(x, size.h / 2, kMatrixUU) = uu;
      system.matrix.at(x, size.h / 2, kMatrixVV) = 1.0f;
    }
    for (const int iterations : {0, 1, 2, 7}) {
      const Planes expected = reference::relax(system.matrix, system.rhs, system.start, kOmega, iterations);
      withThreads({1, 3}, [&] {
        ASSERT_TRUE(exact(relaxedOnDevice(system, iterations, kOmega), expected)) << iterations;
        ASSERT_TRUE(exact(relaxedHostArrays(system, iterations, kOmega), expected)) << iterations;
      });
    }
  }
}

TEST(Relaxation, OfTheAssembledSystemIsTheSameInEveryForm) {
  // Several bands from 12000 pixels on, several waves through the widest.
  for (const Size size : {Size{1, 1}, Size{1, 40}, Size{41, 1}, Size{2, 3}, Size{16, 64}, Size{21, 37},
                          Size{130, 257}, Size{700, 19}, Size{85, 320}, Size{64, 3001}}) {
    SCOPED_TRACE(size);
    TestSystem system(size.h, size.w, 6);
    for (const int plane : {kMatrixUU, kMatrixUV, kMatrixVU, kMatrixVV}) {
      system.matrix.at(size.w / 2, size.h / 2, plane) = 1e-4f;  // singular
    }
    TestSystem once = storedOnce(system);
    for (int y = 0; y < size.h; ++y) once.matrix.at(size.w - 1, y, 3) = kNan;  // no neighbour there
    for (int x = 0; x < size.w; ++x) once.matrix.at(x, size.h - 1, 4) = kInf;
    for (const int sweeps : {0, 1, 2, 10}) {
      const Planes expected = relaxedOnce(once, sweeps, variational::plainRelaxation);
      withThreads({1, 2, 5}, [&] {
        ASSERT_TRUE(exact(relaxedOnce(once, sweeps, variational::relaxSystem), expected)) << sweeps;
      });
      const Planes full = reference::relax(system.matrix, system.rhs, system.start, kOmega, sweeps);
      ASSERT_TRUE(tolerance::rounding(expected, full, 100)) << sweeps;
    }
  }
}

TEST(Relaxation, SkipsSingularBlocks) {
  TestSystem system(4, 6, 3);
  for (const int plane : {kMatrixUU, kMatrixUV, kMatrixVU, kMatrixVV}) system.matrix.at(2, 1, plane) = 0.5f;
  const Planes skipped = relaxedHostArrays(system, 1, 1.5f);
  EXPECT_EQ(skipped.at(2, 1, 0), -0.5f * system.start.at(2, 1, 0));
  EXPECT_EQ(skipped.at(2, 1, 1), -0.5f * system.start.at(2, 1, 1));
}

TEST(Relaxation, ByTheDeviceAndInOrderReachTheSameSolution) {
  const TestSystem system(24, 31, 17, 4.0f);
  const int pixels = 24 * 31;
  for (const float omega : {1.0f, kOmega}) {
    const int sweeps = omega > 1.0f ? 300 : 1500;
    Planes inOrder = system.start;
    {
      const Silence silence;
      GaussSeidel(system.matrix.data(), system.rhs.data(), inOrder.data(), inOrder.data() + pixels, 24, 31,
                  omega, sweeps);
    }
    const Planes redBlack = relaxedHostArrays(system, sweeps, omega);
    const double start = residualOf(system, system.start);
    EXPECT_TRUE(tolerance::solved(residualOf(system, inOrder), start)) << omega;
    EXPECT_TRUE(tolerance::solved(residualOf(system, redBlack), start)) << omega;
    EXPECT_TRUE(tolerance::rounding(redBlack, inOrder, 1e4)) << omega;
  }
  const Planes assembled = relaxedOnce(storedOnce(system), 300, variational::relaxSystem);
  EXPECT_TRUE(tolerance::solved(residualOf(system, assembled), residualOf(system, system.start)));
}

TEST(GaussSeidel, PrintsAFallingResidualBeforeAndAfterEverySweep) {
  const TestSystem system(15, 17, 2);
  for (const int iterations : {-1, 0, 1, 6}) {
    const Report report;
    Planes x = system.start;
    GaussSeidel(system.matrix.data(), system.rhs.data(), x.data(), x.data() + 15 * 17, 15, 17, 1.0f,
                iterations);
    const std::vector<std::string> lines = report.lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(std::max(0, iterations)) + 1);
    double last = std::numeric_limits<double>::infinity();
    for (std::size_t k = 0; k < lines.size(); ++k) {
      int number = -1;
      double residual = 0.0;
      ASSERT_EQ(std::sscanf(lines[k].c_str(), "%d %lf\n", &number, &residual), 2) << lines[k];
      EXPECT_EQ(number, static_cast<int>(k));
      EXPECT_LT(residual, last);
      last = residual;
    }
    EXPECT_NEAR(last, residualOf(system, x), 1e-5 * last);
    if (iterations < 1) {
      EXPECT_TRUE(exact(x, system.start));
    }
  }
}

TEST(Relaxation, UpdatesInOrderUWithOldVAndVWithNewU) {
  TestSystem system(1, 1, 1);
  system.matrix.at(0, 0, kMatrixUU) = 4.0f;
  system.matrix.at(0, 0, kMatrixVU) = 2.0f;
  system.matrix.at(0, 0, kMatrixVV) = 8.0f;
  system.rhs.values = {12.0f, 26.0f};
  float du = 1.0f, dv = 2.0f;
  const Silence silence;
  GaussSeidel(system.matrix.data(), system.rhs.data(), &du, &dv, 1, 1, 1.5f, 1);
  EXPECT_EQ(du, -0.5f + (12.0f - 4.0f) * 1.5f / 4.0f);
  EXPECT_EQ(dv, -1.0f + (26.0f - 2.0f * du) * 1.5f / 8.0f);
}

TEST(Relaxation, AddsItsProcessorTimeEvenWithoutSweeps) {
  const TestSystem system(200, 200, 9);
  for (const int iterations : {0, 50}) {
    const double before = sortimer;
    const std::clock_t start = std::clock();
    relaxedHostArrays(system, iterations, kOmega);
    const auto ticks = static_cast<double>(std::clock() - start);
    EXPECT_GE(sortimer - before, 0.0);
    EXPECT_LE(sortimer - before, ticks);
    if (iterations > 0) {
      EXPECT_GT(sortimer - before, 0.3 * ticks) << "most of the call, apart from the test's own copies";
    }
  }
}
