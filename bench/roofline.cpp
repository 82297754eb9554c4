// tarvo_bench_roofline: the time of every phase of one direction beside what the machine's memory and
// arithmetic allow, all measured in turns in the same run. CPU device only.

#include <tarvo/tarvo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>

#include "machine.h"
#include "roofline_report.h"
#include "synth/scene.h"
#include "workload.h"

namespace {

constexpr const char* kUsage =
    "usage: tarvo_bench_roofline [OPTION...]\n"
    "\n"
    "  --size WxH        of the pictures (default 640x480)\n"
    "  --rounds N        measurements of everything, in turns (default 5)\n"
    "  --json FILE       every measurement\n"
    "  --markdown FILE   the table\n";

constexpr int kCallsPerRound = 5;

struct Options {
  int width = 640, height = 480, rounds = 5;
  std::string json, markdown;
};

/// False for wrong usage.
bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* const value = argv[i + 1];
    char rest;
    if (name == "--size") {
      if (std::sscanf(value, "%dx%d%c", &options.width, &options.height, &rest) != 2) return false;
    } else if (name == "--rounds") {
      options.rounds = std::atoi(value);
    } else if (name == "--json") {
      options.json = value;
    } else if (name == "--markdown") {
      options.markdown = value;
    } else {
      return false;
    }
  }
  // Below 32 pixels nothing is matched.
  return argc % 2 == 1 && options.rounds > 0 && options.width >= 32 && options.height >= 32;
}

/// Seconds on the library's clocks.
struct Clocks {
  double transfer = 1e-3 * timer_memcpy1, descriptors = 1e-3 * timer_hogc, matching = 1e-3 * timer_hogmatch,
         pyramid = 1e-3 * timer_down, warp = 1e-3 * timer_interp_warp, solver = 1e-3 * timer_solver,
         fixedPoint = 1e-3 * timer_makematrix;
};

using Samples = std::map<std::string, std::vector<double>>;

/// Median seconds of a few calls; prepared before each of them.
double secondsOf(const bench::Case& work) {
  std::vector<double> times;
  for (int i = 0; i < kCallsPerRound; ++i) {
    if (work.prepare) work.prepare();
    times.push_back(bench::timeOf(work.run));
  }
  return bench::median(times);
}

/// What is called at full resolution. The weights and systems have no clock and no routine of their own: they
/// are what a fixed-point step takes besides its solves, its tensors and its diffusivities.
void measureCalls(const std::vector<bench::Case>& cases, Samples& samples) {
  namespace phase = bench::phase;
  const double tensors = secondsOf(bench::find(cases, bench::kTensorStep));
  const double diffusivity = secondsOf(bench::find(cases, bench::kDiffusivity));
  const bench::Case& step = bench::find(cases, bench::kWholeStep);
  std::vector<double> assembly;
  for (int i = 0; i < kCallsPerRound; ++i) {
    step.prepare();
    const Clocks before;
    step.run();
    const Clocks after;
    const double systems = (after.fixedPoint - before.fixedPoint) - (after.solver - before.solver) - tensors;
    assembly.push_back(systems / bench::kFixedPointIterations - diffusivity);
  }
  samples[phase::kConfidence].push_back(secondsOf(bench::find(cases, bench::kConfidence)));
  samples[phase::kTensors].push_back(tensors);
  samples[phase::kDiffusivity].push_back(diffusivity);
  samples[phase::kAssembly].push_back(bench::median(assembly));
}

void computeFlow(Rendering& scene) {
  CTensor<float> flow;
  runFlowGPU(scene.frame1, scene.frame2, flow, bench::kDefaults.sigma, bench::kAlpha, bench::kBeta,
             bench::kGamma, bench::kEta, bench::kFixedPointIterations, bench::kSolverIterations);
}

/// A whole direction by the library's clocks; the confidence, which has none, lies within the matching's.
void measureFlow(Rendering& scene, Samples& samples) {
  namespace phase = bench::phase;
  const Clocks before;
  computeFlow(scene);
  const Clocks after;
  samples[phase::kTransfer].push_back(after.transfer - before.transfer);
  samples[phase::kDescriptors].push_back(after.descriptors - before.descriptors);
  samples[phase::kMatching].push_back(after.matching - before.matching - samples[phase::kConfidence].back());
  samples[phase::kPyramid].push_back(after.pyramid - before.pyramid);
  samples[phase::kWarp].push_back(after.warp - before.warp);
  samples[phase::kSolver].push_back(after.solver - before.solver);
}

int run(const Options& options) {
  NReport::silence();
  NDevice::select("cpu");
  const bench::Machine machine = bench::describeMachine();
  const double load = bench::loadAverage();
  for (const auto& fact : machine) std::printf("%-11s %s\n", fact.first.c_str(), fact.second.c_str());
  std::printf("%-11s %.2f\n\n", "load", load);
  std::fflush(stdout);

  const int w = options.width, h = options.height;
  Rendering scene = render(makeScene("demo", w, h, 1));
  bench::Workload workload(w, h);
  const std::vector<bench::Case> cases = workload.cases();
  std::vector<int> teams = {NDevice::threads()};
  if (teams[0] > 1) teams.insert(teams.begin(), 1);
  std::vector<bench::Limits> limits;
  limits.reserve(teams.size());
  for (const int threads : teams) limits.emplace_back(threads);
  std::vector<bench::RooflineRow> rows;
  for (bench::Limits& team : limits) {
    NDevice::threads(team.threads());
    computeFlow(scene);  // to warm up
    Samples samples;
    for (int round = 0; round < options.rounds; ++round) {
      team.measure();
      measureCalls(cases, samples);
      measureFlow(scene, samples);
    }
    for (const bench::PhaseWork& phase : bench::phasesOf(w, h, NMatching::lastCounts())) {
      rows.push_back({phase, w, h, samples.at(phase.name), &team});
    }
    for (const std::string& text : bench::limitLines(team)) std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  }
  std::printf("\n%dx%d, one direction; medians of %d rounds\n%s", w, h, options.rounds,
              bench::rooflineText(rows).c_str());
  if (!options.json.empty()) bench::writeFile(options.json, bench::rooflineJson(rows, limits, machine, load));
  if (!options.markdown.empty()) {
    bench::writeFile(options.markdown, bench::rooflineMarkdown(rows, limits, load));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  Options options;
  if (!parse(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarvo_bench_roofline: %s\n", error.what());
    return 1;
  }
}
