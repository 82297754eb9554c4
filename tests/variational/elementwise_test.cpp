#include <tarvo/elementwise.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "support/test.h"

namespace {

using Row = std::vector<float>;
using Pointers = std::vector<float*>;
using Kernel = std::function<void(const Pointers& planes, int w, int p)>;

/// Two rows: the values, and below them the same from the last to the first.
Planes twoRows(const Row& row) {
  Planes planes(2, static_cast<int>(row.size()));
  std::copy(row.begin(), row.end(), planes.values.begin());
  std::copy(row.begin(), row.end(), planes.values.rbegin());
  return planes;
}

/// Holds what `kernel` makes of planes of two rows against `expected`, the planes behind those against what
/// they were.
void expectAfter(const char* name, const std::vector<Row>& before, std::vector<Row> expected,
                 const Kernel& kernel) {
  expected.insert(expected.end(), before.begin() + static_cast<std::ptrdiff_t>(expected.size()),
                  before.end());
  std::vector<std::unique_ptr<DevicePlanes>> planes;
  Pointers pointers;
  for (const Row& row : before) {
    planes.push_back(std::make_unique<DevicePlanes>(twoRows(row)));
    pointers.push_back(planes.back()->get());
  }
  kernel(pointers, static_cast<int>(before[0].size()), planes[0]->p());
  for (std::size_t i = 0; i < planes.size(); ++i) {
    EXPECT_TRUE(exact(planes[i]->values(), twoRows(expected[i]))) << name << ", argument " << i;
    EXPECT_TRUE(planes[i]->intact()) << name << ", argument " << i;
  }
}

// (1 + 2^-12)^2 - 1 = 2^-11 + 2^-24 is lost by a step that rounds the product first.
constexpr float kA = 1.0f + 0x1p-12f, kFused = 0x1p-11f + 0x1p-24f;

}  // namespace

TEST(Elementwise, ValuesWorkedOutByHand) {
  expectAfter("Scale", {{1, -2, kNan, 0}}, {{0.5f, -1, kNan, 0}},
              [](const Pointers& a, int w, int p) { Scale_kernel(a[0], 2, w, p, 0.5f); });
  expectAfter("Scale1", {{1, -2, kNan, 0}}, {{0.5f, -1, kNan, 0}},
              [](const Pointers& a, int w, int p) { Scale1_kernel(a[0], 2, w, p, 0.5f); });
  expectAfter("setValue", {{1, kNan}}, {{-3, -3}},
              [](const Pointers& a, int w, int p) { setValue_kernel(a[0], 2, w, p, -3.0f); });
  expectAfter("Bound", {{-kInf, 1, 2, 3, 9, kNan}}, {{2, 2, 2, 3, 3, kNan}},
              [](const Pointers& a, int w, int p) { Bound_kernel(a[0], 2, 3, 2, w, p); });
  expectAfter("Bound, limits the wrong way round", {{0, 4, 9, kNan}}, {{3, 3, 3, kNan}},
              [](const Pointers& a, int w, int p) { Bound_kernel(a[0], 5, 3, 2, w, p); });
  // 1 / sqrt(0.000001) = 1000, 1 / sqrt(3.999999 + 0.000001) = 0.5, below zero not a number.
  expectAfter("normalize", {{0, 3.999999f, -1, kInf}}, {{1000, 0.5f, kNan, 0}},
              [](const Pointers& a, int w, int p) { normalize_kernel(a[0], 2, w, p); });
  expectAfter("Psi", {{0, 3.999999f, -1, kInf}}, {{0.001f, 2, kNan, kInf}},
              [](const Pointers& a, int w, int p) { Psi_kernel(a[0], 2, w, p); });
  expectAfter("Add", {{1, 2, kNan}, {10, -2, 1}}, {{11, 0, kNan}},
              [](const Pointers& a, int w, int p) { Add_kernel(a[0], a[1], 2, w, p); });
  expectAfter("Add1", {{1, 2, kNan}, {10, -2, 1}}, {{11, 0, kNan}},
              [](const Pointers& a, int w, int p) { Add1_kernel(a[0], a[1], 2, w, p); });
  expectAfter("Diff", {{0, 0}, {7, 1}, {2, 3}}, {{5, -2}},
              [](const Pointers& a, int w, int p) { Diff_kernel(a[0], a[1], a[2], 2, w, p); });
  expectAfter("Mult", {{0, 0}, {7, 1}, {2, -3}}, {{14, -3}},
              [](const Pointers& a, int w, int p) { Mult_kernel(a[0], a[1], a[2], 2, w, p); });
  expectAfter("Scale_and_Add", {{kA}, {-1}}, {{kFused}},
              [](const Pointers& a, int w, int p) { Scale_and_Add_kernel(a[0], a[1], kA, 2, w, p); });
  expectAfter(
      "mySaxpy2", {{-1, 5}, {kA, 2}, {1, 7}, {kA, 3}},
      {{kFused, std::fmaf(kA, 2.0f, 5.0f)}, {kA, 2}, {-kFused, std::fmaf(-kA, 3.0f, 7.0f)}},
      [](const Pointers& a, int w, int p) { mySaxpy2_kernel(a[0], a[1], kA, a[2], a[3], -kA, 2, w, p); });
}

TEST(Elementwise, CoverEveryPixelOfAStackAndNothingElse) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(size);
    const Planes a = randomPlanes(size.h, size.w, 2, 1), b = randomPlanes(size.h, size.w, 2, 2);
    Planes product(size.h, size.w, 2);
    for (std::size_t i = 0; i < product.values.size(); ++i) product.values[i] = a.values[i] * b.values[i];
    const DevicePlanes first(a), second(b), out(size.h, size.w, 2);
    Mult_kernel(out.get(), first.get(), second.get(), 2 * size.h, size.w, out.p());
    EXPECT_TRUE(exact(out.values(), product));
    EXPECT_TRUE(first.intact() && second.intact() && out.intact());
  }
}

TEST(Diagnostics, ReducePlanesInTheOrderOfTheirRowsAndPrintThem) {
  const Planes random = randomPlanes(20, 33, 1, 3);
  float sum = 0.0f, squares = 0.0f;
  for (const float value : random.values) sum += value, squares += value * value;
  const DevicePlanes padded(random), dense(random, 0);
  EXPECT_EQ(findSum(padded.get(), 20, 33, padded.p()), sum);
  EXPECT_EQ(reduce_rms(dense.get(), 20 * 33), std::sqrt(squares / (20 * 33)));

  Planes plane(2, 3);
  plane.values = {1, -2, 3, 4, 5, -11};
  const DevicePlanes device(plane);
  const Report report;
  print_stats(device.get(), 2, 3, device.p());
  print_slice(plane.data(), 1, 3, 0, 2, 3);
  EXPECT_EQ(report.lines(),
            (std::vector<std::string>{"max=5.000000 min=-11.000000 mean=0.000000 rms=5.416026 \n", "[\n",
                                      "-2.000000 3.000000 \n", "5.000000 -11.000000 \n", "]\n"}));
}
