// Real and rendered picture pairs with known flow, where the folder TARVO_TEST_DATA holds them.
#include <tarvo/tarvo.h>

#include <fstream>

#include "pictures/picture.h"
#include "support/test.h"

namespace {

/// A pair and the end-point error [pixels] that its flow must keep below: about a quarter above what was
/// measured.
struct Pair {
  const char* name;
  double bound;
};
void PrintTo(const Pair& pair, std::ostream* stream) {
  *stream << pair.name;
}

class Pairs : public testing::TestWithParam<Pair> {
 protected:
  void SetUp() override {
    if (!std::ifstream(folder + "/flow.flo"))
      GTEST_SKIP() << "no pair in " << folder << " (set TARVO_TEST_DATA)";
    first = readPicture(folder + "/frame1.png", nullptr);
    second = readPicture(folder + "/frame2.png", nullptr);
  }
  const std::string folder = std::string(TARVO_TEST_DATA) + "/" + GetParam().name;
  CTensor<float> first, second, flow;
};

/// Mean end-point error where the truth is known.
double meanError(const CTensor<float>& flow, const CTensor<float>& truth) {
  constexpr float kUnknown = 1e9f;
  double sum = 0.0;
  long pixels = 0;
  forPixels(truth.sizeY(), truth.sizeX(), [&](int x, int y) {
    if (!(std::fabs(truth(x, y, 0)) < kUnknown && std::fabs(truth(x, y, 1)) < kUnknown)) return;
    sum += std::hypot(static_cast<double>(flow(x, y, 0) - truth(x, y, 0)),
                      static_cast<double>(flow(x, y, 1) - truth(x, y, 1)));
    ++pixels;
  });
  return sum / static_cast<double>(pixels);
}

}  // namespace

TEST_P(Pairs, FlowIsNearTheTruth) {
  const Silence silence;
  const CTensor<float> truth = NFlowFile::read(folder + "/flow.flo");
  runFlowGPU(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.95f, 5, 10);
  ASSERT_TRUE(flow.sizeX() == truth.sizeX() && flow.sizeY() == truth.sizeY());
  const double error = meanError(flow, truth);
  RecordProperty("end_point_error", std::to_string(error));
  EXPECT_LT(error, GetParam().bound);
}

TEST_P(Pairs, AreNoFartherFromTheTruthWithThePresetAccurate) {
  const CTensor<float> truth = NFlowFile::read(folder + "/flow.flo");
  const double standard = meanError(NFlow::compute(first, second).forward, truth);
  EXPECT_LT(meanError(NFlow::compute(first, second, NFlow::preset("accurate")).forward, truth), standard);
}

TEST_P(Pairs, AreMatchedAlikeByHostAndDevice) {
  const Report report;
  runFlow(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.5f, 0, 0);  // matching alone
  long apart = 0;
  for (const std::string& line : report.lines()) apart += line.rfind("Error U", 0) == 0 ? 1 : 0;
  // Gate, window and order of summation differ a little: at most 3 of 491 points were measured.
  EXPECT_LE(100 * apart, NMatching::lastCounts().keptMatches);
  EXPECT_GT(NMatching::lastCounts().keptMatches, 300);
}

INSTANTIATE_TEST_SUITE_P(Shared, Pairs,
                         testing::Values(Pair{"RubberWhale", 0.2}, Pair{"affine_320", 0.4},
                                         Pair{"rotzoom_320", 3.7}, Pair{"photometric_320", 3.1}),
                         [](const auto& pair) { return std::string(pair.param.name); });
