#include <gtest/gtest.h>
#include <tarvo/elementwise.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>

#include "support/device_planes.h"
#include "support/library_state.h"
#include "support/tolerance.h"

namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

/// The values 1 x n planes hold after `kernel` has run on them.
std::vector<std::vector<float>> after(
    const std::vector<std::vector<float>>& rows,
    const std::function<void(const std::vector<float*>&, int, int)>& kernel) {
  const int n = static_cast<int>(rows[0].size());
  std::vector<std::unique_ptr<DevicePlanes>> planes;
  std::vector<float*> pointers;
  for (const auto& row : rows) {
    Planes host(1, n);
    host.values = row;
    planes.push_back(std::make_unique<DevicePlanes>(host));
    pointers.push_back(planes.back()->get());
  }
  kernel(pointers, n, planes[0]->p());
  std::vector<std::vector<float>> results;
  for (const auto& plane : planes) {
    EXPECT_TRUE(plane->intact());
    results.push_back(plane->values().values);
  }
  return results;
}

testing::AssertionResult same(const std::vector<float>& a, const std::vector<float>& b) {
  Planes x(1, static_cast<int>(a.size())), y(1, static_cast<int>(b.size()));
  x.values = a;
  y.values = b;
  return tolerance::exact(x, y);
}

}  // namespace

TEST(Elementwise, ValuesWorkedOutByHand) {
  using Row = std::vector<float>;
  const auto one = [](const Row& a, const std::function<void(float*, int, int)>& kernel) {
    return after({a}, [&](const auto& p, int w, int pitch) { kernel(p[0], w, pitch); })[0];
  };
  for (const auto kernel : {Scale_kernel, Scale1_kernel}) {
    EXPECT_TRUE(same(one({1, -2, kNan, 0}, [&](float* a, int w, int p) { kernel(a, 1, w, p, 0.5f); }),
                     {0.5f, -1, kNan, 0}));
  }
  EXPECT_TRUE(
      same(one({1, kNan}, [](float* a, int w, int p) { setValue_kernel(a, 1, w, p, -3.0f); }), {-3, -3}));
  EXPECT_TRUE(
      same(one({-kInf, 1, 2, 3, 9, kNan}, [](float* a, int w, int p) { Bound_kernel(a, 2, 3, 1, w, p); }),
           {2, 2, 2, 3, 3, kNan}));
  // Limits the wrong way round: everything ends as the upper one.
  EXPECT_TRUE(same(one({0, 4, 9, kNan}, [](float* a, int w, int p) { Bound_kernel(a, 5, 3, 1, w, p); }),
                   {3, 3, 3, kNan}));
  // 1 / sqrt(0.000001) = 1000, 1 / sqrt(3.999999 + 0.000001) = 0.5, below zero not a number.
  EXPECT_TRUE(
      same(one({0, 3.999999f, -1, kInf}, [](float* a, int w, int p) { normalize_kernel(a, 1, w, p); }),
           {1000, 0.5f, kNan, 0}));
  EXPECT_TRUE(same(one({0, 3.999999f, -1, kInf}, [](float* a, int w, int p) { Psi_kernel(a, 1, w, p); }),
                   {0.001f, 2, kNan, kInf}));

  for (const auto kernel : {Add_kernel, Add1_kernel}) {
    const auto sums = after({{1, 2, kNan}, {10, -2, 1}},
                            [&](const auto& p, int w, int pitch) { kernel(p[0], p[1], 1, w, pitch); });
    EXPECT_TRUE(same(sums[0], {11, 0, kNan}));
    EXPECT_TRUE(same(sums[1], {10, -2, 1}));
  }
  EXPECT_TRUE(
      same(after({{0, 0}, {7, 1}, {2, 3}},
                 [](const auto& p, int w, int pitch) { Diff_kernel(p[0], p[1], p[2], 1, w, pitch); })[0],
           {5, -2}));
  EXPECT_TRUE(
      same(after({{0, 0}, {7, 1}, {2, -3}},
                 [](const auto& p, int w, int pitch) { Mult_kernel(p[0], p[1], p[2], 1, w, pitch); })[0],
           {14, -3}));
}

TEST(Elementwise, FusedStepsRoundOnce) {
  // (1 + 2^-12)^2 - 1 = 2^-11 + 2^-24 is lost by rounding the product first.
  const float a = 1.0f + 0x1p-12f;
  const float exactly = 0x1p-11f + 0x1p-24f;
  EXPECT_TRUE(same(
      after({{a}, {-1}},
            [=](const auto& p, int w, int pitch) { Scale_and_Add_kernel(p[0], p[1], a, 1, w, pitch); })[0],
      {exactly}));
  const auto both = after({{-1, 5}, {a, 2}, {1, 7}, {a, 3}}, [=](const auto& p, int w, int pitch) {
    mySaxpy2_kernel(p[0], p[1], a, p[2], p[3], -a, 1, w, pitch);
  });
  EXPECT_TRUE(same(both[0], {exactly, std::fmaf(a, 2.0f, 5.0f)}));
  EXPECT_TRUE(same(both[2], {-exactly, std::fmaf(-a, 3.0f, 7.0f)}));
}

TEST(Elementwise, CoverEveryPixelOfAStackAndNothingElse) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(testing::Message() << size.w << " x " << size.h);
    const Planes a = randomPlanes(size.h, size.w, 2, 1), b = randomPlanes(size.h, size.w, 2, 2);
    Planes sum(size.h, size.w, 2), product(size.h, size.w, 2);
    for (std::size_t i = 0; i < sum.values.size(); ++i) {
      sum.values[i] = b.values[i] + a.values[i];
      product.values[i] = a.values[i] * b.values[i];
    }
    const DevicePlanes first(a), second(b), out(size.h, size.w, 2);
    const int rows = 2 * size.h;
    Mult_kernel(out.get(), first.get(), second.get(), rows, size.w, out.p());
    Add_kernel(first.get(), second.get(), rows, size.w, first.p());
    EXPECT_TRUE(tolerance::exact(out.values(), product));
    EXPECT_TRUE(tolerance::exact(first.values(), sum));
    EXPECT_TRUE(first.intact() && second.intact() && out.intact());
  }
}

TEST(Diagnostics, ReduceAndPrintPlanes) {
  Planes plane(2, 3);
  plane.values = {1, -2, 3, 4, 5, -11};
  const DevicePlanes device(plane);
  EXPECT_EQ(findSum(device.get(), 2, 3, device.p()), 0.0f);
  const DevicePlanes dense(plane, 0);
  EXPECT_EQ(reduce_rms(dense.get(), 3), std::sqrt(14.0f / 3.0f));
  const Report report;
  print_stats(device.get(), 2, 3, device.p());
  print_slice(plane.data(), 1, 3, 0, 2, 3);
  EXPECT_EQ(report.lines(),
            (std::vector<std::string>{"max=5.000000 min=-11.000000 mean=0.000000 rms=5.416026 \n", "[\n",
                                      "-2.000000 3.000000 \n", "5.000000 -11.000000 \n", "]\n"}));
}

TEST(Diagnostics, SumInTheOrderOfTheRows) {
  const Planes plane = randomPlanes(20, 33, 1, 3);
  float sum = 0.0f, squares = 0.0f;
  for (const float value : plane.values) sum += value, squares += value * value;
  const DevicePlanes device(plane), dense(plane, 0);
  EXPECT_EQ(findSum(device.get(), 20, 33, device.p()), sum);
  EXPECT_EQ(reduce_rms(dense.get(), 20 * 33), std::sqrt(squares / (20 * 33)));
}
