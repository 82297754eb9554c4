
#include <algorithm>
#include <functional>
#include <string>

#include "match/match_forms.h"

// Cases in which a test that rejects candidates too early would change the result.

namespace {

/// Fields where every candidate is acceptable; a(x, y, b) and b(x, y, b) are the histograms.
MatchInput acceptableFields(int h, int w, const std::function<float(int, int, int)>& a,
                            const std::function<float(int, int, int)>& b) {
  MatchInput in{Planes(h, w, 3), Planes(h, w, 3),       Planes(h, w, 15),      Planes(h, w, 15),
                Planes(h, w),    Planes(h, w, 1, 1.0f), Planes(h, w, 1, 1.0f), 0.0f};
  forPixels(h, w, 15, [&](int x, int y, int bin) {
    in.hogA.at(x, y, bin) = a(x, y, bin), in.hogB.at(x, y, bin) = b(x, y, bin);
  });
  return in;
}

/// One of `levels` values, the same for `together` neighbouring bins and `size` x `size` pixels: the
/// difference of two descriptors lies in whole sums, whose squares then are as large as they may be.
float stepped(int x, int y, int bin, int size, int together, int levels, std::uint32_t seed) {
  std::uint32_t n = static_cast<std::uint32_t>(x / size) * 374761393u +
                    static_cast<std::uint32_t>(y / size) * 668265263u +
                    static_cast<std::uint32_t>(bin / together) * 2246822519u + seed * 3266489917u;
  n = (n ^ (n >> 13)) * 1274126177u;
  n ^= n >> 16;
  return static_cast<float>(n % static_cast<std::uint32_t>(levels));
}

TEST(MatchBounds, KeepCandidatesWhoseDifferenceIsInWholeSums) {
  const struct {
    int size, together, levels;
  } kCases[] = {{1, 5, 2}, {1, 3, 2}, {4, 5, 3}, {4, 3, 3}, {8, 15, 4}, {13, 5, 2}};
  for (const auto& c : kCases) {
    // Energies are 1, so that the scale decides between sums below one code and far beyond the last.
    for (const float scale : {1e-4f, 0.004f, 0.03f, 0.3f, 40.0f}) {
      const auto value = [&](int x, int y, int b) {
        return scale * stepped(x, y, b, c.size, c.together, c.levels, 1);
      };
      const auto near = [&](int x, int y, int b) {  // shifted, and a little off in a few sums
        const float off = stepped(x, y, b, 4, c.together, 9, 2) == 0.0f ? 0.37f * scale : 0.0f;
        return value(x + 5, y + 3, b) + off;
      };
      expectAllFormsEqual(
          acceptableFields(60, 90, near, value), 16,
          std::to_string(c.size) + " " + std::to_string(c.together) + ", scale " + std::to_string(scale));
    }
  }
}

TEST(MatchBounds, KeepTheRunnerUpThatIsHardlyNearer) {
  // Once two candidates are known, one comes that is a little nearer than the farther of them. Its difference
  // lies in whole sums of one cell, or of each of them alike, where no bound is larger than the distance.
  Random random(6);
  for (int trial = 0; trial < 240; ++trial) {
    const int together = trial % 3 == 0 ? 3 : 5, cells = trial % 2 == 0 ? 1 : 9;
    Planted planted;
    const float base = random.next(0.0f, 2.0f);
    for (Planes* hog : {&planted.in.hogA, &planted.in.hogB}) {
      std::fill(hog->values.begin(), hog->values.end(), base);
    }
    const float root = std::exp(random.next(-4.0f, 2.5f));
    const auto place = [&](int x, int y, float distance) {
      planted.in.energyB.at(x, y) = 1.0f;
      const int first = static_cast<int>(random.next(0, 14.99f)) / together * together;
      const int only = static_cast<int>(random.next(0, 8.99f));
      const int bins = cells == 1 ? together : 15;
      const float share = distance / std::sqrt(static_cast<float>(bins * cells));
      for (int k = 0; k < 9; ++k) {
        if (cells == 1 && k != only) continue;
        for (int b = 0; b < 15; ++b) {
          if (cells == 1 && b / together * together != first) continue;
          planted.in.hogB.at(x + 4 * (k % 3 - 1), y + 4 * (k / 3 - 1), b) += share;
        }
      }
    };
    place(50, 40, root * 1.00001f);
    place(90, 80, root * 0.5f);
    place(130, 120, root);
    EXPECT_EQ(planted.match().y, 80);
  }
}

TEST(MatchBounds, KeepColoursAndEnergiesUpToTheirLimits) {
  Random random(8);
  const float kRoot = std::sqrt(300.0f);
  for (const float own : {0.0f, 0.3f, 17.9f, 127.5f, 240.2f, 254.99f, 255.0f, -40.0f, 1000.0f}) {
    for (const float side : {-1.0f, 1.0f}) {
      Planted planted;
      for (int c = 0; c < 3; ++c) planted.in.imageA.at(100, 100, c) = own;
      int i = 0;
      for (const float apart : {kRoot - 1e-4f, kRoot + 1e-3f, kRoot - 2.0f, 19.0f, 238.0f, 256.0f}) {
        const int x = 30 + i++ * 20;
        planted.candidate(x, 60, 7.0f - static_cast<float>(i));
        for (int c = 0; c < 3; ++c) planted.in.imageB.at(x, 60, c) = own;
        planted.in.imageB.at(x, 60, i % 3) = own + side * apart;
      }
      EXPECT_EQ(planted.match().best, 16.0f);
      EXPECT_EQ(planted.match().second, 36.0f);
    }
  }
  for (const float energy : {1e-42f, 1e-9f, 0.01f, 0.0156f, 0.9999f, 3.0f, 1023.0f, 1e6f, 1e38f, 3e38f}) {
    Planted planted;
    planted.in.energyA.at(100, 100) = energy;
    std::fill(planted.in.energyB.values.begin(), planted.in.energyB.values.end(), -1.0f);
    int i = 0;
    for (const float factor : {0.5f, 0.49999f, 1.0f, 2.0f, 2.00001f, 0.1f, 20.0f}) {
      const int x = 30 + i++ * 20;
      planted.candidate(x, 60, 8.0f - static_cast<float>(i));
      planted.in.energyB.at(x, 60) = energy * factor;
    }
    planted.match();
  }
}

TEST(MatchBounds, KeepWhatNotANumberLetsPass) {
  for (const float own : {5.0f, kNan, kInf, -kInf}) {
    for (const float other : {kNan, kInf, -kInf, 200.0f}) {
      for (int channel = 0; channel < 3; ++channel) {
        Planted planted;
        planted.in.imageA.at(100, 100, channel) = own;
        planted.candidate(60, 70, 3.0f);
        for (int c = 0; c < 3; ++c) planted.in.imageB.at(60, 70, c) = c == channel ? other : 200.0f;
        const bool accepted = std::isnan(own - other);
        EXPECT_EQ(planted.match().best, accepted ? 9.0f : 1e9f) << own << " " << other;
      }
      Planted planted;
      planted.in.energyA.at(100, 100) = own;
      planted.candidate(60, 70, 3.0f);
      planted.in.energyB.at(60, 70) = other;
      planted.match();
    }
  }
}

}  // namespace
