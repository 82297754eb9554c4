#include <tarvo/NDevice.h>
#include <tarvo/NReport.h>
#include <tarvo/hog.h>
#include <tarvo/matching.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "match/match_sizes.h"
#include "match/match_steps.h"
#include "match/pictures.h"
#include "support/device_planes.h"
#include "support/test.h"

namespace {

/// u, v, weight.
using Field = Planes;

class MatchField : public testing::Test {
 protected:
  void SetUp() override { NReport::silence(); }
  void TearDown() override { NReport::to(nullptr); }

  static Field match(const Planes& image1, const Planes& image2) {
    const int h = image1.h, w = image1.w;
    Field field(h, w, 3, -1.0f);
    const long plane = static_cast<long>(h) * w;
    createAndMatchHOG(image1.data(), image2.data(), field.data(), field.data() + plane,
                      field.data() + 2 * plane, h, w, 3);
    return field;
  }
  static int positive(const Field& field) {
    int count = 0;
    for (const float weight : field.plane(2).values) count += weight > 0.0f ? 1 : 0;
    return count;
  }
  /// Whether a weight is that of a match of distance 0, with a runner-up or the only candidate.
  static bool ofNoDistance(float weight) { return weight == 1.0f || weight > 1000.0f; }
};

TEST_F(MatchField, OfIdenticalPicturesIsEveryGatedPointItself) {
  const Planes image = picture(130, 170, textured);
  const Field field = match(image, image);
  const NMatching::Counts counts = NMatching::lastCounts();
  EXPECT_EQ(counts.gridPoints, 37 * 27);
  EXPECT_GT(counts.gatedPoints, counts.gridPoints / 2);
  EXPECT_EQ(counts.forwardMatches, counts.gatedPoints);
  EXPECT_EQ(counts.keptMatches, counts.gatedPoints);
  EXPECT_EQ(positive(field), counts.gatedPoints);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(field.plane(i).values, Planes(130, 170).values);
}

TEST_F(MatchField, OfAShiftIsThatShift) {
  const int h = 150, w = 190, dx = 10, dy = -6;
  const Field field = match(picture(h, w, textured), picture(h, w, textured, dx, dy));
  int matched = 0, grid = 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (x % 4 != 0 || y % 4 != 0 || x < 12 || y < 12 || x >= w - 12 || y >= h - 12) {
        ASSERT_EQ(field.at(x, y, 2), 0.0f);
        continue;
      }
      // Inside, the true position is a candidate and its cells see no border.
      if (x < 24 || y < 24 || x >= w - 24 - dx || y >= h - 24) continue;
      ++grid;
      if (field.at(x, y, 2) == 0.0f) continue;
      ++matched;
      ASSERT_EQ(field.at(x, y, 0), static_cast<float>(dx)) << x << ", " << y;
      ASSERT_EQ(field.at(x, y, 1), static_cast<float>(dy)) << x << ", " << y;
      ASSERT_TRUE(ofNoDistance(field.at(x, y, 2))) << x << ", " << y;
    }
  }
  EXPECT_GT(matched, grid * 2 / 3);
}

TEST_F(MatchField, FollowsTheWidestShiftOfTheWindowAndNoneBeyond) {
  const int h = 100, w = 260;
  const Planes image = picture(h, w, textured);
  const auto share = [&](int dx) {
    const Field field = match(image, picture(h, w, textured, dx, 0));
    int found = 0;
    forPixels(h, w, [&](int x, int y) {
      found += field.at(x, y, 2) > 0.0f && field.at(x, y, 0) == static_cast<float>(dx) ? 1 : 0;
    });
    return found;
  };
  EXPECT_GT(share(80), 300);
  EXPECT_GT(share(-80), 300);
  EXPECT_EQ(share(81), 0);
  for (const float weight : match(image, picture(h, w, textured, 120, 0)).plane(2).values) {
    ASSERT_TRUE(weight == 1.0f || !ofNoDistance(weight)) << weight;
  }
}

TEST_F(MatchField, IsEmptyInFlatAreas) {
  const auto half = [](int x, int y, int c) { return x < 80 ? textured(x, y, c) : 90.0f; };
  const Planes image = picture(100, 160, half);
  const Field field = match(image, image);
  EXPECT_GT(positive(field), 100);
  for (int y = 0; y < 100; ++y) {
    for (int x = 88; x < 160; ++x) ASSERT_EQ(field.at(x, y, 2), 0.0f) << x << ", " << y;
  }
}

TEST_F(MatchField, HasTheSameBitsForEveryNumberOfThreads) {
  const Planes image1 = picture(130, 210, quantised), image2 = picture(130, 210, quantised, 7, 4);
  Field one;
  withThreads({1}, [&] { one = match(image1, image2); });
  EXPECT_GT(positive(one), 200);
  withThreads({2, 3}, [&] { EXPECT_TRUE(exact(match(image1, image2), one)); });
}

TEST_F(MatchField, ExistsForEverySmallSizeAndAnyPixels) {
  const auto spoiled = [](int x, int y, int c) {
    const float values[] = {NAN, INFINITY, -INFINITY, std::numeric_limits<float>::max(), 1e-44f};
    const auto i = static_cast<int>(hashed(x, y, c) * 50.0f);
    return i < 5 ? values[i] : textured(x, y, c);
  };
  for (int size = 1; size <= 30; ++size) {
    for (const int other : {1, 9, 24, 25, size, 30}) {
      const Planes image = picture(size, other, textured);
      const int columns = std::max(0, (other - 21) / 4), rows = std::max(0, (size - 21) / 4);
      EXPECT_LE(positive(match(image, image)), columns * rows);
      EXPECT_EQ(NMatching::lastCounts().gridPoints, columns * rows) << size << " x " << other;
      match(picture(size, other, spoiled), image);
      match(image, picture(size, other, spoiled));
    }
  }
  const Planes large = picture(100, 120, spoiled);
  for (const float value : match(large, large).values) ASSERT_TRUE(std::isfinite(value));
  const Planes flat = picture(120, 120, constant);
  EXPECT_EQ(positive(match(flat, flat)), 0);
}

/// The report of `run`, as text.
template <class Run>
std::string reportOf(const Run& run) {
  std::string text;
  const Report report;
  run();
  for (const std::string& line : report.lines()) text += line;
  return text;
}

TEST_F(MatchField, OfHostArraysOfImpossibleSizesIsRefused) {
  for (const auto& [h, w] : {std::pair{0, 9}, {9, -1}, {10000, 14253}}) {
    EXPECT_THROW(createAndMatchHOG(nullptr, nullptr, nullptr, nullptr, nullptr, h, w, 3),
                 std::invalid_argument);
    EXPECT_THROW(HOGMatch(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, w, h),
                 std::invalid_argument);
  }
  EXPECT_THROW(createAndMatchHOG(nullptr, nullptr, nullptr, nullptr, nullptr, 10000, 14252, 16),
               std::invalid_argument);
}

TEST_F(MatchField, OfHostFieldsEqualsThatOfThePipelineWhereBothSearch) {
  const int h = 210, w = 120;
  const Planes image1 = picture(h, w, textured), image2 = picture(h, w, textured, 5, -3);
  Planes hog1(h, w, kHogBins), hog2(h, w, kHogBins), confidence(h, w), u(h, w), v(h, w), weight(h, w);
  ComputeHOGGPU(image1.data(), hog1.data(), 3, w, h);
  ComputeHOGGPU(image2.data(), hog2.data(), 3, w, h);
  computeConfidenceGPU(image1.data(), nullptr, confidence.data(), h, w, 3);
  const Field expected = match(image1, image2);
  EXPECT_GT(positive(expected), 300);
  const std::string text = reportOf([&] {
    HOGMatch(image1.data(), image2.data(), hog1.data(), hog2.data(), confidence.data(), weight.data(),
             u.data(), v.data(), w, h);
  });
  EXPECT_EQ(NMatching::lastCounts().gridPoints, 28 * 51);
  for (int y = 12; y < h - 12; ++y) {
    for (int x = 12; x < w - 12; ++x) {
      ASSERT_EQ(weight.at(x, y), expected.at(x, y, 2)) << x << ", " << y;
      ASSERT_EQ(u.at(x, y), expected.at(x, y, 0));
      ASSERT_EQ(v.at(x, y), expected.at(x, y, 1));
    }
  }
  EXPECT_NE(text.find("108,108: E1="), std::string::npos);
  const auto count = [&](const std::string& part) {
    int n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("consistency check passed : "), 10);
  EXPECT_EQ(text.substr(text.size() - 9), "Hog over\n");

  Planes small(h, 108), smallHog(h, 108, kHogBins), field(h, 108);
  const std::string smallText = reportOf([&] {
    HOGMatch(picture(h, 108, textured).data(), picture(h, 108, textured).data(), smallHog.data(),
             smallHog.data(), small.data(), field.data(), field.data(), field.data(), 108, h);
  });
  EXPECT_EQ(smallText.find("108,108"), std::string::npos);
}

TEST_F(MatchField, ReportsItsGridAndRunningTotals) {
  const Planes image = picture(60, 80, textured);
  const auto totals = [&](double& creation, double& matching) {
    const std::string text = reportOf([&] { match(image, image); });
    int nX = 0, nY = 0, w = 0, h = 0, end = 0;
    const int read =
        std::sscanf(text.c_str(), "%d %d %d %d\nHOG creation = %lf msec\nHOG match = %lf msec\nHog over%n",
                    &nX, &nY, &w, &h, &creation, &matching, &end);
    EXPECT_EQ(read, 6) << text;
    EXPECT_EQ(end + 1, static_cast<int>(text.size()));
    EXPECT_EQ(nX, 14);
    EXPECT_EQ(nY, 9);
    EXPECT_EQ(w, 80);
    EXPECT_EQ(h, 60);
  };
  double creation = 0.0, matching = 0.0, later = 0.0, laterMatching = 0.0;
  totals(creation, matching);
  totals(later, laterMatching);
  EXPECT_GT(later, creation);
  EXPECT_GT(laterMatching, matching);
}

}  // namespace

TEST(LoneMatches, LoseTheirWeightWhateverTheirNeighboursWeigh) {
  // On a grid of 8 pixels: a pair that moves alike two rows apart, one beside them that moves elsewhere, one at
  // the border with nothing around, one whose like is three columns away.
  Planes field(60, 70, 3);  // weight, u, v
  const auto put = [&field](int x, int y, float u, float v) {
    field.at(x, y, 0) = 5.0f, field.at(x, y, 1) = u, field.at(x, y, 2) = v;
  };
  put(16, 8, 20, 3), put(16, 24, 18, 6);
  put(24, 16, 20, 7.5f);
  put(0, 56, 0, 0);
  put(40, 48, 1, 1), put(64, 48, 1, 1);
  const auto kept = [&](int least) {
    const DevicePlanes in(field), out(60, 70);
    match::dropLone(out.get(), in.plane(0), in.plane(1), in.plane(2), 8, least, 60, 70, in.p());
    EXPECT_TRUE(out.intact());
    const Planes weight = out.values();
    std::vector<std::pair<int, int>> places;
    forPixels(60, 70, [&](int x, int y) {
      if (weight.at(x, y) != 0.0f) places.emplace_back(x, y);
    });
    return places;
  };
  using Places = std::vector<std::pair<int, int>>;
  EXPECT_EQ(kept(1),
            (Places{{16, 8}, {24, 16}, {16, 24}}));  // (24, 16) is within 4 pixels of the second only
  EXPECT_EQ(kept(2), (Places{{16, 24}}));
  EXPECT_EQ(kept(0).size(), 6u);
}

TEST(ShrunkMatches, ReachTwiceAsFarAndContradictFalseOnes) {
  const Silence silence;
  const int h = 140, w = 330, dx = -104;
  const Planes first = picture(h, w, textured), second = picture(h, w, textured, dx, 0);
  const DevicePlanes image1(first), image2(second), merged(h, w, 3);
  Planes field(h, w, 3);  // u, v, weight
  const auto put = [&field](int x, int y, float u) { field.at(x, y, 0) = u, field.at(x, y, 2) = 7.0f; };
  put(200, 60, dx + 3.0f), put(240, 80, 11);  // a match of full size that agrees, and a false one
  put(20, 20, 9);  // leaves the picture when it moves so far: nothing contradicts it
  const DevicePlanes full(field);
  match::mergeShrunk(image1.get(), image2.get(), {full.plane(0), full.plane(1), full.plane(2)},
                     {merged.plane(0), merged.plane(1), merged.plane(2)}, 1, h, w, image1.p());
  EXPECT_TRUE(merged.intact());
  const Planes found = merged.values();
  int added = 0, wrong = 0;
  forPixels(h, w, [&](int x, int y) {
    if (!(found.at(x, y, 2) > 0.0f) || field.at(x, y, 2) > 0.0f) return;
    ++added;
    if (std::hypot(found.at(x, y, 0) - dx, found.at(x, y, 1)) > 2.0f) ++wrong;
  });
  EXPECT_GT(added, 200);
  EXPECT_LT(wrong, added / 50);
  EXPECT_EQ(found.at(200, 60, 0), dx + 3.0f);
  EXPECT_EQ(found.at(200, 60, 2), 7.0f);
  EXPECT_EQ(found.at(240, 80, 2), 0.0f);
  EXPECT_EQ(found.at(20, 20, 2), 7.0f);
}
