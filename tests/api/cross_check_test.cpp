// What the hybrid driver's cross-check finds on real pictures, explained point by point.
#include <gtest/gtest.h>
#include <tarvo/tarvo.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "match/match_kernels.h"
#include "pictures/picture.h"
#include "support/library_state.h"

namespace {

struct Point {
  int x, y;
  bool operator<(const Point& other) const { return y != other.y ? y < other.y : x < other.x; }
};

/// Features of a pair as the match search of the hybrid driver reads them.
struct Features {
  CTensor<float> images[2], hogs[2];
  CMatrix<float> energies[2], confidence;
  float meanConfidence = 0.0f;

  explicit Features(const std::string& folder) {
    for (int i = 0; i < 2; ++i) {
      images[i] = readPicture(folder + (i == 0 ? "/frame1.png" : "/frame2.png"), nullptr);
      computeHOG(images[i], hogs[i]);
      energies[i] = CMatrix<float>(w(), h());
      computeEnergy(hogs[i].data(), energies[i].data(), h(), w(), kHogBins);
    }
    computeConfidence(images[0], images[1], confidence);
    meanConfidence =
        compute2DSum(confidence.data(), h(), w()) / (static_cast<float>(w()) * static_cast<float>(h()));
  }
  int w() const { return images[0].sizeX(); }
  int h() const { return images[0].sizeY(); }
};

struct Candidate {
  float distance = match::kRejected;
  int x = 0, y = 0;
};

/// One search with the device's distances, over any window.
class Search {
 public:
  Search(const Features& features, bool forward, int ax, int ay) : ax_(ax), ay_(ay) {
    const int a = forward ? 0 : 1, b = 1 - a;
    kernel_ = {features.images[a].data(),
               features.images[b].data(),
               features.hogs[a].data(),
               features.hogs[b].data(),
               features.confidence.data(),
               forward ? 1 : 0,
               features.energies[a].data(),
               features.energies[b].data(),
               features.meanConfidence,
               nullptr,
               nullptr,
               nullptr,
               nullptr,
               nullptr,
               nullptr,
               features.h(),
               features.w(),
               features.w(),
               1};
    for (int i = 0; i < match::kDescriptorSize; ++i) {
      descriptor_[i] = kernel_.element(kernel_.hogA, ax, ay, i / kHogBins, i % kHogBins);
    }
  }
  bool gated() const { return kernel_.searched(ax_, ay_); }
  float distance(int x, int y) const {
    return kernel_.acceptable(ax_, ay_, x, y) ? kernel_.distance(descriptor_, x, y, match::kRejected)
                                              : match::kRejected;
  }
  /// The nearest candidate at least `margin` pixels from the border, by columns.
  Candidate nearest(int margin) const {
    Candidate best;
    const match::Window window = match::windowAround(ax_, ay_, kernel_.h, kernel_.w, margin);
    for (int x = window.x0; x <= window.x1; ++x) {
      for (int y = window.y0; y <= window.y1; ++y) {
        const float d = distance(x, y);
        if (d < best.distance) best = {d, x, y};
      }
    }
    return best;
  }

 private:
  kernels::HOGMatch_kernel kernel_;
  int ax_, ay_;
  float descriptor_[match::kDescriptorSize];
};

/// Two sums of the same 135 squares in different orders.
bool sameUpToRounding(float a, float b) {
  return std::fabs(a - b) <= 1e-5f * std::max(a, b);
}

bool near(int a, int b) {
  return std::abs(a - b) <= 1;
}

/// Which known difference of the two matchings explains that the host matched `point` to (fx, fy) and the
/// device did not; empty if none does.
std::string explanation(const Features& features, const Point& point, int fx, int fy) {
  constexpr int kDeviceMargin = 12, kHostMargin = 4;
  const Search forward(features, true, point.x, point.y);
  if (!forward.gated()) return "gate";
  const Candidate deviceMatch = forward.nearest(kDeviceMargin);
  if (deviceMatch.x != fx || deviceMatch.y != fy) {
    const float hosts = forward.distance(fx, fy);
    if (hosts == deviceMatch.distance) return "ties";
    return sameUpToRounding(hosts, deviceMatch.distance) ? "summation" : "";
  }
  const Search backward(features, false, fx, fy);
  const Candidate deviceBack = backward.nearest(kDeviceMargin);
  const Candidate wideBack = backward.nearest(kHostMargin);
  const auto home = [&](const Candidate& c) { return near(c.x, point.x) && near(c.y, point.y); };
  if (home(deviceBack)) return "";
  if (home(wideBack)) return "backward margin";
  for (int y = point.y - 1; y <= point.y + 1; ++y) {
    for (int x = point.x - 1; x <= point.x + 1; ++x) {
      const float there = backward.distance(x, y);
      if (there == wideBack.distance) return "ties";
      if (sameUpToRounding(there, wideBack.distance)) return "summation";
    }
  }
  return "";
}

/// A pair, and how many displacements differ for which reason.
struct Expected {
  const char* name;
  std::map<std::string, int> counts;
};
void PrintTo(const Expected& expected, std::ostream* stream) {
  *stream << expected.name;
}

class CrossCheck : public testing::TestWithParam<Expected> {};

}  // namespace

TEST_P(CrossCheck, FindsNoDisplacementThatItsKnownDifferencesDoNotExplain) {
  const std::string folder = std::string(TARVO_TEST_DATA) + "/" + GetParam().name;
  if (!std::ifstream(folder + "/flow.flo"))
    GTEST_SKIP() << "no pair in " << folder << " (set TARVO_TEST_DATA)";
  const Features features(folder);
  std::vector<std::string> lines;
  {
    const Report report;
    CTensor<float> a(features.images[0]), b(features.images[1]), flow;
    runFlow(a, b, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.5f, 0, 0);  // matching alone
    lines = report.lines();
  }
  EXPECT_GT(NMatching::lastCounts().keptMatches, 0);
  std::map<Point, Point> hosts;  // where the host found the points in question
  for (const std::string& line : lines) {
    int x, y, f, ignored;
    const auto at = [&]() -> Point& {
      return hosts.emplace(Point{x, y}, Point{INT_MIN, INT_MIN}).first->second;
    };
    if (std::sscanf(line.c_str(), "Error U %d %d : %d %d", &x, &y, &f, &ignored) == 4) at().x = f;
    if (std::sscanf(line.c_str(), "Error V %d %d : %d %d", &x, &y, &f, &ignored) == 4) at().y = f;
  }
  std::map<std::string, int> counts;
  for (auto& [point, found] : hosts) {
    // A coordinate without an error is that of the device: no displacement, where it has no match.
    if (found.x == INT_MIN) found.x = point.x;
    if (found.y == INT_MIN) found.y = point.y;
    const std::string reason = explanation(features, point, found.x, found.y);
    EXPECT_NE(reason, "") << point.x << ", " << point.y << " -> " << found.x << ", " << found.y;
    ++counts[reason];
  }
  EXPECT_EQ(counts, GetParam().counts);
}

INSTANTIATE_TEST_SUITE_P(Shared, CrossCheck,
                         testing::Values(Expected{"RubberWhale", {}}, Expected{"teddy", {{"gate", 1}}},
                                         Expected{"cave_2_0002_clean", {{"gate", 5}}},
                                         Expected{"affine_320", {}},
                                         Expected{"rotzoom_320", {{"backward margin", 3}}},
                                         Expected{"photometric_320", {}},
                                         Expected{"layer_60_320", {{"gate", 1}}},
                                         Expected{"layer_two_320", {}}, Expected{"shift_70_320", {}}),
                         [](const auto& pair) { return std::string(pair.param.name); });
