#include <tarvo/hog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "reference/hog_reference.h"
#include "support/test.h"

namespace {

struct Gradients {
  std::vector<float> x, y;

  void add(float gx, float gy) {
    x.push_back(gx);
    y.push_back(gy);
  }
  /// Both signs of both components.
  void addAll(float gx, float gy) {
    for (const float a : {gx, -gx}) {
      for (const float b : {gy, -gy}) add(a, b);
    }
  }
};

/// Sector that the kernel sorts each gradient into: the one plane that is no longer -0.
std::vector<int> sectorsOf(const Gradients& g, int bins) {
  const int n = static_cast<int>(g.x.size());
  Planes x(1, n), y(1, n);
  x.values = g.x;
  y.values = g.y;
  const DevicePlanes gx(x), gy(y);
  DevicePlanes sums(1, n, bins);
  sums.fill(-0.0f);
  computeHOG_kernel(gx.get(), gy.get(), sums.get(), bins, 1, n, gx.p());
  EXPECT_TRUE(sums.intact());
  const Planes result = sums.values();
  std::vector<int> sectors(g.x.size(), -1);
  for (int i = 0; i < n; ++i) {
    for (int b = 0; b < bins; ++b) {
      if (result.at(i, 0, b) == 0.0f && std::signbit(result.at(i, 0, b))) continue;
      EXPECT_EQ(sectors[static_cast<std::size_t>(i)], -1);
      sectors[static_cast<std::size_t>(i)] = b;
    }
  }
  return sectors;
}

void expectFormula(const Gradients& g, int bins) {
  const std::vector<int> sectors = sectorsOf(g, bins);
  int shown = 0;
  for (std::size_t i = 0; i < sectors.size() && shown < 10; ++i) {
    const int expected = g.x[i] == 0.0f && g.y[i] == 0.0f ? -1 : reference::sectorOf(g.x[i], g.y[i], bins);
    if (sectors[i] == expected) continue;
    ADD_FAILURE() << std::hexfloat << "(" << g.x[i] << ", " << g.y[i] << ") of " << bins << ": " << sectors[i]
                  << ", expected " << expected;
    ++shown;
  }
}

/// The float directions nearest to an angle: the convergents of its tangent, and those one step beside them.
void addNearest(Gradients& g, double angle) {
  constexpr double kMost = 1 << 24;
  const double tangent = std::fabs(std::tan(angle));
  const double sx = std::cos(angle) < 0 ? -1.0 : 1.0, sy = angle < 0 ? -1.0 : 1.0;
  double p0 = 0, q0 = 1, p1 = 1, q1 = 0, rest = tangent;
  for (int step = 0; step < 40; ++step) {
    const double whole = std::floor(rest);
    for (double part = std::max(1.0, whole - 3); part <= whole; ++part) {
      const double p = part * p1 + p0, q = part * q1 + q0;
      if (p >= kMost || q >= kMost) continue;
      for (const double scale : {0x1p-40, 0.5, 0x1p60}) {
        for (const double beside : {-1.0, 0.0, 1.0}) {
          g.add(static_cast<float>(sx * q * scale), static_cast<float>(sy * (p + beside) * scale));
        }
      }
    }
    const double p2 = whole * p1 + p0, q2 = whole * q1 + q0;
    if (p2 >= kMost || q2 >= kMost || rest == whole) return;
    p0 = p1, q0 = q1, p1 = p2, q1 = q2;
    rest = 1.0 / (rest - whole);
  }
}

Planes hogOf(const Planes& image, int bins = 15) {
  const DevicePlanes in(image);
  const DevicePlanes hog(image.h, image.w, bins);
  gComputeHOG(in.get(), hog.get(), image.count, bins, image.h, image.w, in.p());
  EXPECT_TRUE(in.intact());
  EXPECT_TRUE(hog.intact());
  return hog.values();
}

Planes hostHogOf(const Planes& image) {
  CTensor<float> hog(2, 3, 1);
  computeHOG(tensorOf(image), hog);
  return planesOf(hog);
}

/// A plane of slope (sx, sy).
Planes ramp(int h, int w, float sx, float sy) {
  Planes image(h, w);
  forPixels(h, w,
            [&](int x, int y) { image.at(x, y) = sx * static_cast<float>(x) + sy * static_cast<float>(y); });
  return image;
}

}  // namespace

TEST(HogSectors, AxesZeroAndSpecialValues) {
  Gradients g;
  const struct {
    float x, y;
    int sector;
  } kCases[] = {{1, 0, 7},    {0, 1, 11},   {0, -1, 3},      {-1, 0, 0},      {-1, -0.0f, 0},
                {0, 0, -1},   {-1, 1, 13},  {1, 1, 9},       {-1, 1e-30f, 0}, {-1, -1e-30f, 0},
                {kNan, 1, 0}, {1, kNan, 0}, {kNan, kNan, 0}, {kInf, kNan, 0}, {kNan, -kInf, 0}};
  for (const auto& one : kCases) g.add(one.x, one.y);
  const std::vector<int> sectors = sectorsOf(g, 15);
  for (std::size_t i = 0; i < sectors.size(); ++i)
    EXPECT_EQ(sectors[i], kCases[i].sector) << g.x[i] << " " << g.y[i];
}

TEST(HogSectors, EqualTheFormulaEverywhere) {
  Gradients g;
  for (int y = 0; y <= 90; ++y) {  // what pictures of whole grey levels give
    for (int x = 0; x <= 90; ++x) g.addAll(0.5f * static_cast<float>(x), 0.5f * static_cast<float>(y));
  }
  const float kEnds[] = {0.0f,
                         std::numeric_limits<float>::denorm_min(),
                         std::numeric_limits<float>::min(),
                         1e-20f,
                         1.0f,
                         3e30f,
                         std::numeric_limits<float>::max(),
                         kInf};
  for (const float x : kEnds) {
    for (const float y : kEnds) g.addAll(x, y);
  }
  Random random(7);
  for (int i = 0; i < 100000; ++i) {
    const float x = random.next(-1, 1), y = random.next(-1, 1);
    g.add(x, y);
    g.add(std::ldexp(x, static_cast<int>(random.next(-120, 120))),
          std::ldexp(y, static_cast<int>(random.next(-120, 120))));
  }
  expectFormula(g, 15);
}

TEST(HogSectors, EqualTheFormulaAtTheBorders) {
  for (const int bins : {15, 8, 36}) {
    Gradients g;
    Random random(9);
    for (int k = 1; k <= bins; ++k) {
      // The border of the rounded formula, found by halving.
      double before = -3.14159265358979, from = 3.14159265358979;
      const auto reaches = [&](double angle) {
        const auto shifted = static_cast<float>(static_cast<double>(static_cast<float>(angle)) + 3.1415926);
        return static_cast<double>(static_cast<float>(bins) * shifted) / 6.2831853 >= k;
      };
      if (!reaches(from)) continue;
      for (int i = 0; i < 70; ++i) (reaches((before + from) / 2) ? from : before) = (before + from) / 2;
      addNearest(g, from);
      for (int i = 0; i < 500; ++i) {
        const float length = random.next(0.01f, 400.0f);
        const auto x = static_cast<float>(length * std::cos(from)),
                   y = static_cast<float>(x * std::tan(from));
        for (const float side : {-kInf, kInf}) {
          float near = y;
          for (int step = 0; step < 4; ++step, near = std::nextafter(near, side)) g.add(x, near);
        }
      }
    }
    expectFormula(g, bins);
  }
}

TEST(HogField, EqualsThePlainTwinForAnyNumberOfThreads) {
  for (const Size& size : kSizes) {
    for (const int channels : {1, 3}) {
      SCOPED_TRACE(testing::Message() << size << ", " << channels << " channels");
      const Planes image = randomPlanes(size.h, size.w, channels, 11), expected = reference::hogField(image);
      withThreads({1, 2, 3, 16}, [&] { EXPECT_TRUE(exact(hogOf(image), expected)); });
    }
  }
  const Planes image = randomPlanes(21, 37, 3, 12);
  EXPECT_TRUE(exact(hogOf(image, 8), reference::hogField(image, 8)));
  const Planes narrow = randomPlanes(5, 4, 2, 13);
  EXPECT_TRUE(exact(hogOf(narrow, 1), reference::hogField(narrow, 1)));
}

TEST(HogField, SurvivesAnyPixel) {
  Planes image = randomPlanes(33, 61, 3, 14);
  image.at(10, 8, 1) = kNan;
  image.at(40, 20, 0) = kInf;
  image.at(20, 25, 2) = -kInf;
  image.at(55, 5, 2) = 3e38f;
  const Planes hog = hogOf(image);
  EXPECT_TRUE(exact(hog, reference::hogField(image)));
  EXPECT_TRUE(std::isnan(hog.at(10, 8, 0)));
  EXPECT_TRUE(std::isfinite(hog.at(30, 10, 0)));
  EXPECT_FALSE(std::isfinite(hostHogOf(image).at(10, 8, 0)));
  EXPECT_TRUE(exact(hogOf(Planes(9, 9, 3, kNan)), reference::hogField(Planes(9, 9, 3, kNan))));
  const Planes flat(40, 40, 3, 200.0f), zero(40, 40, 15);
  EXPECT_TRUE(exact(hogOf(flat), zero));
  EXPECT_TRUE(exact(hostHogOf(flat), zero));
}

TEST(HogField, RampsFillTheSectorOfTheirDirection) {
  const struct {
    float x, y;
    int sector;
  } kCases[] = {{2, 0, 7}, {-2, 0, 0}, {0, 2, 11}, {0, -2, 3}};
  for (const auto& one : kCases) {
    const Planes image = ramp(19, 19, one.x, one.y);
    const Planes device = hogOf(image), host = hostHogOf(image);
    for (int b = 0; b < 15; ++b) {
      const int apart = std::min((b - one.sector + 15) % 15, (one.sector - b + 15) % 15);
      const float share = apart == 0 ? 0.52201146f : apart == 1 ? 0.23899427f : 0.0f;
      EXPECT_NEAR(device.at(9, 9, b), 2 * share, 1e-6f) << b;
      if (one.sector == 0) continue;  // where the host blends its end planes
      EXPECT_NEAR(host.at(9, 9, b), 2 * share, 1e-6f) << b;
    }
  }
}

TEST(HogField, HostFollowsItsRecipe) {
  for (const Size& size : {Size{1, 1}, Size{1, 9}, Size{17, 29}, Size{60, 80}}) {
    const Planes image = randomPlanes(size.h, size.w, 3, 17);
    EXPECT_TRUE(tolerance::rounding(hostHogOf(image), reference::hostHogField(image), 49));
  }
}

TEST(HogField, HostArraysGiveTheDeviceField) {
  const Report report;
  const Planes image = randomPlanes(17, 29, 3, 18);
  Planes hog(17, 29, 15, kNan);
  ComputeHOGGPU(image.data(), hog.data(), 3, 29, 17);
  EXPECT_TRUE(exact(hog, hogOf(image)));
  EXPECT_EQ(report.lines(), std::vector<std::string>{"hog end\n"});
}

TEST(HogField, RefusesNoBins) {
  const ThrowOnError errors;
  const DevicePlanes in(Planes(21, 37, 3)), hog(21, 37, 15);
  EXPECT_THROW(gComputeHOG(in.get(), hog.get(), 3, 0, 21, 37, in.p()), DeviceFailure);
}

TEST(BoxFilter, AveragesThePixelsInside) {
  for (const int size : {0, 1, 2, 3, 7, 1000}) {
    const Planes image = randomPlanes(13, 17, 1, 20);
    Planes expected(13, 17);
    forPixels(13, 17, [&](int x, int y) {
      double sum = 0;
      int count = 0;
      for (int j = 0; j < 13; ++j) {
        for (int i = 0; i < 17; ++i) {
          if (std::abs(i - x) > size / 2 || std::abs(j - y) > size / 2) continue;
          sum += image.at(i, j);
          ++count;
        }
      }
      expected.at(x, y) = static_cast<float>(sum / count);
    });
    DevicePlanes plane(image);
    boxFilterCPU(plane.get(), plane.get(), 13, 17, plane.p(), size);
    EXPECT_TRUE(tolerance::rounding(plane.values(), expected, 221)) << size;
    EXPECT_TRUE(plane.intact());
  }
}
