// tarvo_bench_flow: time, memory and error of whole flow computations on rendered pairs with known flow.

#include <tarvo/tarvo.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "flow_report.h"
#include "machine.h"
#include "machine_limits.h"
#include "passes.h"
#include "phases.h"
#include "synth/scene.h"

namespace {

constexpr const char* kUsage =
    "usage: tarvo_bench_flow [OPTION...]\n"
    "\n"
    "  --quick           only 320x240 and 640x480\n"
    "  --size WxH        this size instead of the default ones (320x240, 640x480, 1280x960, 1920x1080); may "
    "be\n"
    "                    repeated\n"
    "  --runs N          measured runs of each row, after one to warm up (default 3; from a million pixels "
    "on 2\n"
    "                    and none to warm up)\n"
    "  --device NAME     auto, cpu, cuda or cuda:N (default auto)\n"
    "  --json FILE       every measurement\n"
    "  --markdown FILE   the table\n";

struct Size {
  int width, height;
};

struct Options {
  std::vector<Size> sizes;
  bool quick = false;
  int runs = 0;  ///< 0: by the size
  std::string device = "auto", json, markdown;
};

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

Size parseSize(const std::string& text) {
  Size size{};
  char rest;
  if (std::sscanf(text.c_str(), "%dx%d%c", &size.width, &size.height, &rest) != 2 || size.width < 1 ||
      size.height < 1) {
    throw UsageError("not a size: " + text);
  }
  return size;
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--quick") {
      options.quick = true;
      continue;
    }
    if (i + 1 == argc) throw UsageError("unknown option, or one without its value: " + name);
    const std::string value = argv[++i];
    if (name == "--size") {
      options.sizes.push_back(parseSize(value));
    } else if (name == "--runs") {
      options.runs = std::atoi(value.c_str());
      if (options.runs < 1) throw UsageError("--runs must be at least 1, got " + value);
    } else if (name == "--device") {
      options.device = value;
    } else if (name == "--json") {
      options.json = value;
    } else if (name == "--markdown") {
      options.markdown = value;
    } else {
      throw UsageError("unknown option " + name);
    }
  }
  if (options.sizes.empty()) {
    options.sizes = {{320, 240}, {640, 480}};
    if (!options.quick) options.sizes.insert(options.sizes.end(), {{1280, 960}, {1920, 1080}});
  }
  return options;
}

/// Seconds that the library's clocks show, by phase.
std::array<double, bench::kPhases> clocks() {
  std::array<double, bench::kPhases> s{};
  s[bench::kSmoothing] = timer_filter;
  s[bench::kTransfer] = timer_memcpy1;
  s[bench::kMatching] = timer_HOG;
  s[bench::kVariational] = timer_var;
  s[bench::kPyramid] = timer_down;
  s[bench::kWarping] = timer_interp_warp;
  s[bench::kAssembly] = timer_makematrix - timer_solver;
  s[bench::kSolver] = timer_solver;
  for (double& milliseconds : s) milliseconds *= 1e-3;
  return s;
}

/// Mean end-point error over all pixels and over those seen in both frames.
void compare(const CTensor<float>& flow, const Rendering& scene, bench::FlowRow& row) {
  double sum = 0.0, sumSeen = 0.0, seen = 0.0;
  for (int y = 0; y < row.height; ++y) {
    for (int x = 0; x < row.width; ++x) {
      const double error =
          std::hypot(flow(x, y, 0) - scene.flow(x, y, 0), flow(x, y, 1) - scene.flow(x, y, 1));
      sum += error;
      if (scene.visible(x, y, 0) > 0.0f) {
        sumSeen += error;
        seen += 1.0;
      }
    }
  }
  row.endPointError = sum / (static_cast<double>(row.width) * row.height);
  row.endPointErrorVisible = seen > 0.0 ? sumSeen / seen : row.endPointError;
}

bench::FlowRow measure(Rendering& scene, int threads, int runs) {
  bench::FlowRow row{};
  row.width = scene.frame1.sizeX();
  row.height = scene.frame1.sizeY();
  row.threads = threads;
  const std::vector<bench::Pass> passes = bench::passesOf(row.width, row.height);
  row.passes = static_cast<int>(passes.size());
  row.megapixelPasses = 1e-6 * bench::pixelsOf(passes);
  NDevice::threads(threads);
  NDevice::trim();
  row.load = bench::loadAverage();
  bench::resetPeakMemory();
  const bool large = static_cast<double>(row.width) * row.height >= 1e6;
  const bool standard = runs == 0;
  if (standard) runs = large ? 2 : 3;
  const int warmUps = standard && large ? 0 : 1;
  CTensor<float> flow;
  int run = -warmUps;
  do {
    const auto before = clocks();
    const auto start = std::chrono::steady_clock::now();
    runFlowGPU(scene.frame1, scene.frame2, flow, bench::kDefaults.sigma, bench::kAlpha, bench::kBeta,
               bench::kGamma, bench::kEta, bench::kFixedPointIterations, bench::kSolverIterations);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const auto after = clocks();
    if (run < 0) continue;
    row.total.push_back(seconds.count());
    for (std::size_t k = 0; k < bench::kPhases; ++k) row.phases[k].push_back(after[k] - before[k]);
  } while (++run < runs);
  row.peakMemory = bench::peakMemory();
  const NDevice::MemoryUse memory = NDevice::memoryUse();
  row.libraryMemory = static_cast<double>(memory.inUse + memory.kept);
  compare(flow, scene, row);
  row.triad = bench::triadBandwidth(
      bench::solverFootprint(static_cast<double>(row.width) * row.height, bench::Couplings::Once));
  return row;
}

int run(const Options& options) {
  NReport::silence();
  NDevice::select(options.device);
  const bench::Machine machine = bench::describeMachine();
  for (const auto& fact : machine) std::printf("%-11s %s\n", fact.first.c_str(), fact.second.c_str());
  std::printf("\nSeconds, medians of the runs; memory in MiB. Threads drive the CPU device.\n");
  for (const bench::PhaseName& phase : bench::kPhaseNames)
    std::printf("  %-9s %s\n", phase.key, phase.meaning);
  std::printf("\n%s", bench::flowHead().c_str());

  const int allThreads = NDevice::threads();
  std::vector<int> teams = {allThreads};
  if (NDevice::kind() == "cpu" && allThreads > 1) teams.insert(teams.begin(), 1);
  std::vector<bench::FlowRow> rows;
  for (const Size& size : options.sizes) {
    Rendering scene = render(makeScene("demo", size.width, size.height, 1));
    for (const int threads : teams) {
      rows.push_back(measure(scene, threads, options.runs));
      std::printf("%s", bench::flowLine(rows.back()).c_str());
      std::fflush(stdout);
    }
  }
  if (!options.json.empty()) bench::writeFile(options.json, bench::flowJson(rows, machine));
  if (!options.markdown.empty()) bench::writeFile(options.markdown, bench::flowMarkdown(rows, machine));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  try {
    return run(parse(argc, argv));
  } catch (const UsageError& error) {
    std::fprintf(stderr, "tarvo_bench_flow: %s\n%s", error.what(), kUsage);
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarvo_bench_flow: %s\n", error.what());
    return 1;
  }
}
