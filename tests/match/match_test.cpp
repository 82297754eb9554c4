#include <gtest/gtest.h>
#include <tarvo/NDevice.h>
#include <tarvo/hog.h>
#include <tarvo/matching.h>

#include <cstring>
#include <string>
#include <vector>

#include "match/match_kernels.h"
#include "match/pictures.h"
#include "reference/match_reference.h"
#include "support/device_planes.h"

namespace {

using reference::MatchInput;
using reference::MatchResult;

/// Integers on the device.
class DeviceInts {
 public:
  explicit DeviceInts(const std::vector<int>& values)
      : size_(static_cast<int>(values.size())), memory_(NDevice::allocate(values.size())) {
    std::vector<float> bits(values.size());
    std::memcpy(bits.data(), values.data(), values.size() * sizeof(int));
    NDevice::upload(memory_, bits.data(), 1, size_, size_);
  }
  ~DeviceInts() { NDevice::release(memory_); }
  DeviceInts(const DeviceInts&) = delete;
  DeviceInts& operator=(const DeviceInts&) = delete;
  int* get() const { return reinterpret_cast<int*>(memory_); }
  std::vector<int> values() const {
    std::vector<float> bits(static_cast<std::size_t>(size_));
    NDevice::download(bits.data(), memory_, 1, size_, size_);
    std::vector<int> result(bits.size());
    std::memcpy(result.data(), bits.data(), bits.size() * sizeof(int));
    return result;
  }

 private:
  int size_;
  float* memory_;
};

constexpr int kUntouchedInt = -7;
constexpr float kUntouched = -7.0f;

std::vector<MatchResult> collect(const std::vector<int>& x, const std::vector<int>& y, const Planes& best,
                                 const Planes& second) {
  std::vector<MatchResult> results(x.size());
  for (std::size_t k = 0; k < x.size(); ++k) {
    if (x[k] == kUntouchedInt) continue;
    results[k] = {true, x[k], y[k], best.values[k], second.values[k]};
  }
  return results;
}

struct Points {
  std::vector<int> x, y;
};

/// The exported search.
std::vector<MatchResult> search(const MatchInput& in, const Points& points, bool gated) {
  const int n = static_cast<int>(points.x.size());
  const DevicePlanes imageA(in.imageA), imageB(in.imageB), hogA(in.hogA), hogB(in.hogB),
      confidence(in.confidence), energyA(in.energyA), energyB(in.energyB);
  const DeviceInts x(points.x), y(points.y);
  const DeviceInts matchX(std::vector<int>(points.x.size(), kUntouchedInt)),
      matchY(std::vector<int>(points.x.size(), kUntouchedInt));
  DevicePlanes best(Planes(1, n, 1, kUntouched)), second(Planes(1, n, 1, kUntouched));
  HOGMatch_kernel(imageA.get(), imageB.get(), hogA.get(), hogB.get(), confidence.get(), gated ? 1 : 0,
                  energyA.get(), energyB.get(), in.meanConfidence, matchX.get(), matchY.get(), best.get(),
                  second.get(), x.get(), y.get(), in.imageA.h, in.imageA.w, imageA.p(), n);
  EXPECT_TRUE(best.intact() && second.intact());
  return collect(matchX.values(), matchY.values(), best.values(), second.values());
}

/// The kernel itself, point by point.
std::vector<MatchResult> plain(const MatchInput& in, const Points& points, bool gated) {
  const int n = static_cast<int>(points.x.size());
  std::vector<int> matchX(points.x.size(), kUntouchedInt), matchY(points.x.size(), kUntouchedInt);
  Planes best(1, n, 1, kUntouched), second(1, n, 1, kUntouched);
  const kernels::HOGMatch_kernel kernel{in.imageA.data(),
                                        in.imageB.data(),
                                        in.hogA.data(),
                                        in.hogB.data(),
                                        in.confidence.data(),
                                        gated ? 1 : 0,
                                        in.energyA.data(),
                                        in.energyB.data(),
                                        in.meanConfidence,
                                        matchX.data(),
                                        matchY.data(),
                                        best.data(),
                                        second.data(),
                                        points.x.data(),
                                        points.y.data(),
                                        in.imageA.h,
                                        in.imageA.w,
                                        in.imageA.w,
                                        n};
  for (int k = 0; k < n; ++k) kernel(k, 0);
  return collect(matchX, matchY, best, second);
}

testing::AssertionResult same(const std::vector<MatchResult>& results,
                              const std::vector<MatchResult>& expected, const Points& points) {
  for (std::size_t k = 0; k < results.size(); ++k) {
    const MatchResult &a = results[k], &b = expected[k];
    if (a.searched == b.searched && a.x == b.x && a.y == b.y && a.best == b.best && a.second == b.second)
      continue;
    return testing::AssertionFailure()
           << "point (" << points.x[k] << ", " << points.y[k] << "): searched " << a.searched << ", match ("
           << a.x << ", " << a.y << "), distances " << a.best << " " << a.second << "; expected "
           << b.searched << ", (" << b.x << ", " << b.y << "), " << b.best << " " << b.second;
  }
  return testing::AssertionSuccess();
}

Points gridOf(int h, int w, int step) {
  Points points;
  for (int y = 4; y < h - 4; y += step) {
    for (int x = 4; x < w - 4; x += step) points.x.push_back(x), points.y.push_back(y);
  }
  points.x.push_back(0), points.y.push_back(12);  // what a point without a forward match looks like
  points.x.push_back(12), points.y.push_back(0);
  return points;
}

/// Fields of two pictures as the pipeline computes them.
MatchInput fieldsOf(const Planes& imageA, const Planes& imageB) {
  MatchInput in{imageA, imageB, {}, {}, {}, {}, {}, 0.0f};
  const int h = imageA.h, w = imageA.w;
  const DevicePlanes a(imageA), b(imageB);
  DevicePlanes hog(h, w, kHogBins), plane(h, w);
  const auto energyOf = [&](const DevicePlanes& image, Planes& hogValues) {
    gComputeHOG(image.get(), hog.get(), 3, kHogBins, h, w, hog.p());
    hogValues = hog.values();
    computeEnergy_kernel(hog.get(), plane.get(), h, w, hog.p(), kHogBins);
    return plane.values();
  };
  in.energyA = energyOf(a, in.hogA);
  in.energyB = energyOf(b, in.hogB);
  gComputeConfidence(a.get(), plane.get(), h, w, plane.p(), 3);
  in.confidence = plane.values();
  in.meanConfidence = gCompute2DSum(plane.get(), h, w, plane.p()) / static_cast<float>(w * h);
  return in;
}

void expectAllFormsEqual(const MatchInput& in, int step, const std::string& name) {
  SCOPED_TRACE(name);
  const Points points = gridOf(in.imageA.h, in.imageA.w, step);
  for (const bool gated : {true, false}) {
    std::vector<MatchResult> expected;
    for (std::size_t k = 0; k < points.x.size(); ++k) {
      expected.push_back(reference::matchPoint(in, points.x[k], points.y[k], gated));
    }
    EXPECT_TRUE(same(plain(in, points, gated), expected, points));
    EXPECT_TRUE(same(search(in, points, gated), expected, points));
  }
}

/// A case by hand: a grey picture where candidates are acceptable only where they are planted, at a distance
/// of choice. The point is (100, 100) unless a test says else.
struct Planted {
  static constexpr int kSize = 200;
  MatchInput in{Planes(kSize, kSize, 3),       Planes(kSize, kSize, 3),
                Planes(kSize, kSize, 15),      Planes(kSize, kSize, 15),
                Planes(kSize, kSize),          Planes(kSize, kSize, 1, 1.0f),
                Planes(kSize, kSize, 1, 9.0f), 0.0f};
  /// Candidates must not share cells: two of them 4 pixels apart in both directions, or 0, 4 or 8 in either.
  void candidate(int x, int y, float rootOfDistance) {
    in.energyB.at(x, y) = 1.0f;
    in.hogB.at(x, y, 3) = rootOfDistance;
  }
  MatchResult match(int ax = 100, int ay = 100) const {
    const Points point{{ax}, {ay}};
    const auto result = search(in, point, true);
    EXPECT_TRUE(same(result, {reference::matchPoint(in, ax, ay, true)}, point));
    return result[0];
  }
};

void expectMatch(const MatchResult& result, int x, int y, float best, float second) {
  EXPECT_TRUE(result.searched);
  EXPECT_EQ(result.x, x);
  EXPECT_EQ(result.y, y);
  EXPECT_EQ(result.best, best);
  EXPECT_EQ(result.second, second);
}

TEST(MatchSearch, HasOneResultInAllItsForms) {
  using Function = float (*)(int, int, int);
  struct Case {
    const char* name;
    Function a, b;
    int h, w, dx, dy, step;
  };
  const Case cases[] = {
      {"textured, shifted", textured, textured, 150, 210, 10, -6, 4},
      {"textured, full windows", textured, textured, 230, 240, -3, 2, 16},
      {"other texture", textured, quantised, 90, 110, 0, 0, 4},
      {"noise", noise, noise, 110, 130, 1, 1, 4},
      {"constant", constant, constant, 70, 90, 0, 0, 8},
      {"checkerboard", checkerboard, checkerboard, 90, 120, 3, 5, 8},
      {"pale checkerboard", checkerboard, paleCheckerboard, 90, 120, 3, 5, 8},
      {"stripes", stripes, stripes, 80, 110, 2, 0, 8},
      {"quantised", quantised, quantised, 110, 130, 4, 4, 4},
      {"flat on texture", textured, constant, 80, 90, 0, 0, 4},
      {"one candidate", textured, textured, 25, 25, 0, 0, 4},
      {"one column", textured, textured, 60, 25, 0, 1, 4},
      {"no candidate", textured, textured, 24, 40, 0, 0, 4},
  };
  for (const Case& c : cases) {
    expectAllFormsEqual(fieldsOf(picture(c.h, c.w, c.a), picture(c.h, c.w, c.b, c.dx, c.dy)), c.step, c.name);
  }
}

TEST(MatchSearch, HasOneResultWhateverThePixelsHold) {
  Planes a = picture(80, 100, textured), b = picture(80, 100, textured, 5, 3);
  const float values[] = {NAN, INFINITY, -INFINITY, 3e38f, -3e38f, 1e19f, 1e-42f};
  Random random(4);
  for (const float value : values) {
    for (Planes* image : {&a, &b}) {
      image->at(static_cast<int>(random.next(0, 100)), static_cast<int>(random.next(0, 80)), 1) = value;
    }
  }
  MatchInput in = fieldsOf(a, b);
  expectAllFormsEqual(in, 4, "pictures");
  for (const float value : values) {  // and fields that no picture has
    for (Planes* plane : {&in.hogA, &in.hogB, &in.energyA, &in.energyB, &in.confidence}) {
      for (int i = 0; i < 40; ++i) {
        plane->at(static_cast<int>(random.next(0, 100)), static_cast<int>(random.next(0, 80)),
                  i % plane->count) = value;
      }
    }
  }
  expectAllFormsEqual(in, 4, "fields");
  in.meanConfidence = NAN;
  expectAllFormsEqual(in, 8, "mean");
}

TEST(MatchSearch, HasOneResultForDistancesOfAnySize) {
  for (const float scale : {1e-25f, 1e-20f, 1e-6f, 300.0f, 3e4f}) {
    MatchInput in = fieldsOf(picture(70, 80, quantised), picture(70, 80, quantised, 2, 2));
    for (Planes* plane : {&in.hogA, &in.hogB, &in.energyA, &in.energyB}) {
      for (float& value : plane->values) value *= scale;
    }
    expectAllFormsEqual(in, 4, "scale " + std::to_string(scale));
  }
}

TEST(MatchSearch, LeavesSecondDistanceAsTheTreesDo) {
  Planted none;
  expectMatch(none.match(), 0, 0, 1e9f, 1e9f);

  Planted single;
  single.candidate(60, 70, 3.0f);
  expectMatch(single.match(), 60, 70, 9.0f, 1e9f);

  Planted sameColumn;
  sameColumn.candidate(50, 61, 2.0f);
  sameColumn.candidate(50, 40, 2.0f);
  sameColumn.candidate(71, 90, 3.0f);
  expectMatch(sameColumn.match(), 50, 40, 4.0f, 4.0f);

  Planted otherColumns;
  otherColumns.candidate(57, 30, 2.0f);
  otherColumns.candidate(50, 60, 2.0f);
  otherColumns.candidate(50, 90, 5.0f);
  otherColumns.candidate(57, 121, 4.0f);
  expectMatch(otherColumns.match(), 50, 60, 4.0f, 16.0f);
  otherColumns.candidate(130, 140, 3.0f);
  expectMatch(otherColumns.match(), 50, 60, 4.0f, 9.0f);

  Planted improved;  // the best of a column becomes its second
  improved.candidate(50, 30, 3.0f);
  improved.candidate(50, 60, 2.0f);
  improved.candidate(90, 60, 6.0f);
  expectMatch(improved.match(), 50, 60, 4.0f, 9.0f);

  Planted far;  // from 1e9 on a distance counts as none
  far.candidate(50, 60, 31623.0f);
  far.candidate(90, 60, 31000.0f);
  expectMatch(far.match(), 90, 60, 961000000.0f, 1e9f);
}

TEST(MatchSearch, TakesCandidatesUpToItsLimitsAndNoneBeyond) {
  Planted window;
  for (const int x : {19, 181, 20}) window.candidate(x, 100, x == 20 ? 5.0f : 1.0f);
  expectMatch(window.match(), 20, 100, 25.0f, 1e9f);
  Planted border;
  border.candidate(100, 188, 1.0f);
  border.candidate(107, 187, 5.0f);
  border.candidate(113, 11, 1.0f);
  border.candidate(120, 12, 6.0f);
  expectMatch(border.match(100, 150), 107, 187, 25.0f, 1e9f);
  expectMatch(border.match(100, 60), 120, 12, 36.0f, 1e9f);

  Planted colour;
  for (const int x : {50, 61}) colour.candidate(x, 60, x == 50 ? 5.0f : 1.0f);
  for (int c = 0; c < 3; ++c) {
    colour.in.imageB.at(50, 60, c) = 10.0f;  // sum of squares 300
    colour.in.imageB.at(61, 60, c) = c == 1 ? 10.00001f : 10.0f;
  }
  expectMatch(colour.match(), 50, 60, 25.0f, 1e9f);

  Planted energy;
  for (const int x : {50, 61, 72, 83}) energy.candidate(x, 60, static_cast<float>(x));
  energy.in.energyB.at(50, 60) = 2.0000002f;
  energy.in.energyB.at(61, 60) = 0.49999997f;
  energy.in.energyB.at(72, 60) = 2.0f;
  energy.in.energyB.at(83, 60) = 0.5f;
  expectMatch(energy.match(), 72, 60, 5184.0f, 6889.0f);
}

TEST(MatchSearch, IsGatedByConfidenceInTheForwardPassOnly) {
  Planted planted;
  planted.candidate(60, 70, 3.0f);
  planted.in.confidence.at(100, 100) = 7.9f;  // counts as 7
  planted.in.meanConfidence = 56.0f;
  EXPECT_TRUE(planted.match().searched);
  planted.in.meanConfidence = 56.5f;
  EXPECT_FALSE(planted.match().searched);
  EXPECT_TRUE(search(planted.in, {{100}, {100}}, false)[0].searched);
  EXPECT_FALSE(search(planted.in, {{0}, {100}}, false)[0].searched);
  planted.in.confidence.at(100, 100) = NAN;  // counts as 0
  EXPECT_FALSE(planted.match().searched);
}

TEST(ConsistencyCheck, KeepsWhatReturnsWithinOnePixelAndWeighsIt) {
  struct Case {
    int backX, backY;
    float d1, d2;
    bool kept;
    float weight;
  };
  const Case cases[] = {
      {20, 20, 2.0f, 5.0f, true, static_cast<float>(3.0 / 2.000001)},
      {21, 19, 0.0f, 5.0f, true, static_cast<float>(5.0 / 0.000001)},
      {19, 21, 4.0f, 4.0f, true, 0.0f},
      {22, 20, 2.0f, 5.0f, false, 0.0f},
      {20, 18, 2.0f, 5.0f, false, 0.0f},
      {0, 0, 1e9f, 1e9f, false, 0.0f},
      {20, 20, 0.0f, 1e9f, true, 1.0f},
      {20, 20, 1e8f, 1.00000008e8f, true, 1.0f},
      {20, 20, 2e8f, 3e8f, true, 0.0f},
      {20, 20, 0.0f, 1e8f, true, 1e14f},
  };
  for (const Case& c : cases) {
    const DeviceInts pointX({20}), pointY({20}), forwardX({31}), forwardY({15}), backX({c.backX}),
        backY({c.backY});
    DevicePlanes best(Planes(1, 1, 1, c.d1)), second(Planes(1, 1, 1, c.d2));
    DevicePlanes weight(Planes(40, 50)), u(Planes(40, 50)), v(Planes(40, 50));
    consistencyCheck_kernel(pointX.get(), pointY.get(), forwardX.get(), forwardY.get(), backX.get(),
                            backY.get(), best.get(), second.get(), 1, weight.get(), u.get(), v.get(), 40, 50,
                            weight.p());
    Planes expected(40, 50);
    const auto only = [&](float value) {
      expected.at(20, 20) = c.kept ? value : 0.0f;
      return expected.values;
    };
    EXPECT_EQ(u.values().values, only(11.0f)) << c.d1 << " " << c.d2;
    EXPECT_EQ(v.values().values, only(-5.0f));
    EXPECT_EQ(weight.values().values, only(c.weight)) << c.d1 << " " << c.d2;
    EXPECT_TRUE(weight.intact() && u.intact() && v.intact());
  }
}

}  // namespace
