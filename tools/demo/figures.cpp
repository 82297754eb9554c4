// Compares the results of "tarvo sequence" with the truth of "tarvo synth --frames", and prints a table of means.
//
//   tarvo_demo_figures FRAMES RESULTS TRUTH

#include <tarvo/tarvo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "evaluation/evaluation.h"
#include "flow_files/flow_file.h"
#include "pictures/picture.h"

namespace fs = std::filesystem;

namespace {

struct Sums {
  double error = 0, outliers = 0, unexplained = 0, seen = 0;
  double found = 0, right = 0, hidden = 0;  // occluded pixels: called so, called so rightly, truly so
};

/// What of a frame the next one brought back does not show, where it is truly seen there.
void addUnexplained(const CTensor<float>& frame, const CTensor<float>& next, const CTensor<float>& flow,
                    const CTensor<float>& hidden, Sums& sums) {
  const CTensor<float> back = NFlow::warp(next, flow);
  for (int y = 0; y < frame.sizeY(); ++y) {
    for (int x = 0; x < frame.sizeX(); ++x) {
      if (hidden(x, y, 0) > 0 || !std::isfinite(back(x, y, 0))) continue;
      for (int z = 0; z < 3; ++z) sums.unexplained += std::fabs(frame(x, y, z) - back(x, y, z)) / 3;
      ++sums.seen;
    }
  }
}

void addOcclusion(const CTensor<float>& told, const CTensor<float>& hidden, Sums& sums) {
  for (int k = 0; k < told.size() / 3; ++k) {
    const bool called = told.data()[k] > 0, truly = hidden.data()[k] > 0;
    sums.found += called ? 1 : 0;
    sums.hidden += truly ? 1 : 0;
    sums.right += called && truly ? 1 : 0;
  }
}

void print(const fs::path& frames, const fs::path& results, const fs::path& truth) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(frames)) names.push_back(entry.path().stem().string());
  std::sort(names.begin(), names.end());
  if (names.size() < 2) throw std::runtime_error(frames.string() + ": has no two frames");
  Sums sums;
  for (std::size_t k = 0; k + 1 < names.size(); ++k) {
    const std::string flowName = names[k] + ".flo", pictureName = names[k] + ".png";
    const CTensor<float> flow = tool::readFlow((results / flowName).string(), nullptr),
                         exact = tool::readFlow((truth / flowName).string(), nullptr);
    const Evaluation figures = evaluate(flow, exact);
    sums.error += figures.epe;
    sums.outliers += figures.outliers;
    const CTensor<float> hidden = readPicture((truth / "occlusion" / pictureName).string(), nullptr);
    addOcclusion(readPicture((results / "occlusion" / pictureName).string(), nullptr), hidden, sums);
    addUnexplained(readPicture((frames / pictureName).string(), nullptr),
                   readPicture((frames / (names[k + 1] + ".png")).string(), nullptr), flow, hidden, sums);
  }
  const auto pairs = static_cast<double>(names.size() - 1);
  std::printf("end-point error, mean      %7.3f px\n", sums.error / pairs);
  std::printf("outliers                   %7.2f %%   (over 3 px and over 5 %%)\n",
              100 * sums.outliers / pairs);
  std::printf("warp error, what is seen   %7.2f grey levels\n", sums.unexplained / sums.seen);
  std::printf("occlusion, F1              %7.3f\n", 2 * sums.right / (sums.found + sums.hidden));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FRAMES RESULTS TRUTH\n", argv[0]);
    return 2;
  }
  try {
    print(argv[1], argv[2], argv[3]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}
