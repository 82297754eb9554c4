#pragma once

#include <tarvo/NDevice.h>
#include <tarvo/hog.h>
#include <tarvo/matching.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "match/match_kernels.h"
#include "match/match_steps.h"
#include "reference/match_reference.h"
#include "support/test.h"

// The search of points in its forms: the exported one, the reference and the search for home.

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

inline constexpr int kUntouchedInt = -7;
inline constexpr float kUntouched = -7.0f;

inline std::vector<MatchResult> collect(const std::vector<int>& x, const std::vector<int>& y,
                                        const Planes& best, const Planes& second) {
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

/// Runs `form` with the arguments of HOGMatch_kernel on the device.
template <class Form>
std::vector<MatchResult> onDevice(const MatchInput& in, const Points& points, bool gated, const Form& form) {
  const int n = static_cast<int>(points.x.size());
  const DevicePlanes imageA(in.imageA), imageB(in.imageB), hogA(in.hogA), hogB(in.hogB),
      confidence(in.confidence), energyA(in.energyA), energyB(in.energyB);
  const DeviceInts x(points.x), y(points.y);
  const DeviceInts matchX(std::vector<int>(points.x.size(), kUntouchedInt)),
      matchY(std::vector<int>(points.x.size(), kUntouchedInt));
  DevicePlanes best(Planes(1, n, 1, kUntouched)), second(Planes(1, n, 1, kUntouched));
  form(kernels::HOGMatch_kernel{imageA.get(), imageB.get(), hogA.get(), hogB.get(), confidence.get(),
                                gated ? 1 : 0, energyA.get(), energyB.get(), in.meanConfidence, matchX.get(),
                                matchY.get(), best.get(), second.get(), x.get(), y.get(), in.imageA.h,
                                in.imageA.w, imageA.p(), n});
  EXPECT_TRUE(best.intact() && second.intact());
  return collect(matchX.values(), matchY.values(), best.values(), second.values());
}

/// The exported search.
inline std::vector<MatchResult> search(const MatchInput& in, const Points& points, bool gated) {
  return onDevice(in, points, gated, [](const kernels::HOGMatch_kernel& m) {
    HOGMatch_kernel(m.imageA, m.imageB, m.hogA, m.hogB, m.confidence, m.forwardPass, m.energyA, m.energyB,
                    m.meanConfidence, m.matchX, m.matchY, m.bestDistance, m.secondDistance, m.pointX,
                    m.pointY, m.h, m.w, m.p, m.outW);
  });
}

inline testing::AssertionResult same(const std::vector<MatchResult>& results,
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

/// Whether the search for home finds the expected matches where they lie within one pixel of a home, and else
/// nothing that does: for homes at the matches, beside them, and too far off.
inline void expectHomesFound(const MatchInput& in, const Points& points, bool gated,
                             const std::vector<MatchResult>& expected) {
  const int offsets[][2] = {{0, 0}, {1, 0}, {-1, 1}, {0, -1}, {2, 0}, {-1, -2}, {40, 40}};
  for (const auto& offset : offsets) {
    Points homes = points;
    for (std::size_t k = 0; k < expected.size(); ++k) {
      homes.x[k] = std::max(2, expected[k].x + offset[0]);
      homes.y[k] = std::max(2, expected[k].y + offset[1]);
    }
    const DeviceInts homeX(homes.x), homeY(homes.y);
    const auto found = onDevice(in, points, gated, [&](const kernels::HOGMatch_kernel& m) {
      match::matchHome(m, homeX.get(), homeY.get());
    });
    for (std::size_t k = 0; k < expected.size(); ++k) {
      const auto isHome = [&](const MatchResult& result) {
        return kernels::consistencyCheck_kernel::within(homes.x[k], result.x) &&
               kernels::consistencyCheck_kernel::within(homes.y[k], result.y);
      };
      ASSERT_EQ(found[k].searched, expected[k].searched);
      ASSERT_EQ(isHome(found[k]), isHome(expected[k]))
          << "point (" << points.x[k] << ", " << points.y[k] << "), home (" << homes.x[k] << ", "
          << homes.y[k] << "): found (" << found[k].x << ", " << found[k].y << "), expected ("
          << expected[k].x << ", " << expected[k].y << ")";
      if (!isHome(found[k])) continue;
      ASSERT_EQ(found[k].x, expected[k].x);
      ASSERT_EQ(found[k].y, expected[k].y);
    }
  }
}

inline Points gridOf(int h, int w, int step) {
  Points points;
  for (int y = 4; y < h - 4; y += step) {
    for (int x = 4; x < w - 4; x += step) points.x.push_back(x), points.y.push_back(y);
  }
  points.x.push_back(0), points.y.push_back(12);  // what a point without a forward match looks like
  points.x.push_back(12), points.y.push_back(0);
  return points;
}

/// Fields of two pictures as the pipeline computes them.
inline MatchInput fieldsOf(const Planes& imageA, const Planes& imageB) {
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

inline void expectAllFormsEqual(const MatchInput& in, int step, const std::string& name) {
  SCOPED_TRACE(name);
  const Points points = gridOf(in.imageA.h, in.imageA.w, step);
  for (const bool gated : {true, false}) {
    std::vector<MatchResult> expected;
    for (std::size_t k = 0; k < points.x.size(); ++k) {
      expected.push_back(reference::matchPoint(in, points.x[k], points.y[k], gated));
    }
    EXPECT_TRUE(same(search(in, points, gated), expected, points));
    if (NDevice::kind() == "cpu") {  // the kernel itself, point by point: the device's memory is the host's
      const auto plainly = onDevice(in, points, gated, [](const kernels::HOGMatch_kernel& m) {
        for (int k = 0; k < m.outW; ++k) m(k, 0);
      });
      EXPECT_TRUE(same(plainly, expected, points));
    }
    expectHomesFound(in, points, gated, expected);
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
    expectHomesFound(in, point, true, result);
    return result[0];
  }
};

inline void expectMatch(const MatchResult& result, int x, int y, float best, float second) {
  EXPECT_TRUE(result.searched);
  EXPECT_EQ(result.x, x);
  EXPECT_EQ(result.y, y);
  EXPECT_EQ(result.best, best);
  EXPECT_EQ(result.second, second);
}
