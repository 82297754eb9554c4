// tarvo_bench_kernels: time and memory traffic of the library's kernels and routines.

#include <benchmark/benchmark.h>
#include <tarvo/NDevice.h>
#include <tarvo/NReport.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "kernel_report.h"
#include "machine.h"
#include "workload.h"

namespace {

constexpr const char* kUsage =
    "usage: tarvo_bench_kernels [--device NAME] [--threads N] [--markdown FILE] [--benchmark_...]\n"
    "\n"
    "Prints a table of medians. Of the benchmark package's options these are of use: "
    "--benchmark_filter=REGEX,\n"
    "--benchmark_repetitions=N, --benchmark_min_time=SECONDS, --benchmark_enable_random_interleaving=true,\n"
    "--benchmark_out=FILE (every measurement as JSON), --benchmark_list_tests.\n";

using Clock = std::chrono::steady_clock;

/// Waits until the device has done what it was given.
void finishDevice(const float* anything) {
  float value;
  NDevice::download(&value, anything, 1, 1, 1);
}

/// Calls without waiting for the device, where it works behind the caller's back.
int callsPerWait(const bench::Case& work) {
  return NDevice::kind() == "cuda" && !work.prepare ? 20 : 1;
}

void measure(benchmark::State& state, const bench::Case& work, const float* anything) {
  const bool waits = NDevice::kind() == "cuda";
  const int calls = callsPerWait(work);
  std::vector<double> times;
  const auto once = [&] {
    if (work.prepare) work.prepare();
    if (waits) finishDevice(anything);
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) work.run();
    if (waits) finishDevice(anything);
    return std::chrono::duration<double>(Clock::now() - start).count() / calls;
  };
  once();  // warm-up
  for (auto _ : state) {
    times.push_back(once());
    state.SetIterationTime(times.back());
  }
  if (work.valid && !work.valid()) state.SkipWithError("the solver stopped before its last iteration");
  const double seconds = bench::median(times);  // little moved by what else the machine does
  state.counters[bench::kNsPerPixel] = 1e9 * seconds / work.pixels;
  state.counters[bench::kBytesPerPixel] = work.bytes / work.pixels;
  state.counters[bench::kGigabytesPerSecond] = 1e-9 * work.bytes / seconds;
  state.counters[bench::kFootprint] = work.footprint;
}

/// Takes "--NAME VALUE" out of the arguments; `fallback` where it is not among them.
std::string takeOption(int& argc, char** argv, const char* name, const char* fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) != 0) continue;
    std::string value = argv[i + 1];
    for (int j = i; j + 2 <= argc; ++j) argv[j] = argv[j + 2];
    argc -= 2;
    return value;
  }
  return fallback;
}

std::vector<bench::Case> allCases(std::vector<std::unique_ptr<bench::Workload>>& workloads) {
  std::vector<bench::Case> cases;
  for (const double footprint : {250e3, 5e6, 25e6, 200e6}) {
    cases.push_back(bench::teamTriad(footprint));
    cases.push_back(bench::plainTriad(footprint));
  }
  workloads.push_back(std::make_unique<bench::Workload>(160, 120));
  workloads.push_back(std::make_unique<bench::Workload>(640, 480));
  for (const auto& workload : workloads) {
    for (bench::Case& work : workload->cases()) cases.push_back(std::move(work));
  }
  return cases;
}

int run(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const std::string markdown = takeOption(argc, argv, "--markdown", "");
  NDevice::select(takeOption(argc, argv, "--device", "auto"));
  const std::string threads = takeOption(argc, argv, "--threads", "");
  if (!threads.empty()) NDevice::threads(std::atoi(threads.c_str()));
  benchmark::Initialize(&argc, argv);
  if (argc > 1) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  NReport::silence();
  for (const auto& fact : bench::describeMachine()) {
    benchmark::AddCustomContext(fact.first, fact.second);
    std::printf("%-11s %s\n", fact.first.c_str(), fact.second.c_str());
  }
  const double load = bench::loadAverage();
  std::printf("%-11s %.2f\n\n", "load", load);
  std::fflush(stdout);

  std::vector<std::unique_ptr<bench::Workload>> workloads;
  const std::vector<bench::Case> cases = allCases(workloads);
  const bench::Planes anything(1, 1, 1);
  for (const bench::Case& work : cases) {
    benchmark::RegisterBenchmark(work.name.c_str(), [&work, &anything](benchmark::State& state) {
      measure(state, work, anything.data());
    })->UseManualTime();
  }
  bench::KernelReport report;
  benchmark::RunSpecifiedBenchmarks(&report);
  benchmark::Shutdown();
  std::fputs(report.text().c_str(), stdout);
  if (!markdown.empty()) {
    bench::writeFile(markdown,
                     bench::format("Load average at the start: %.2f.\n\n", load) + report.markdown());
  }
  return report.failed() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarvo_bench_kernels: %s\n", error.what());
    return 1;
  }
}
