#include "machine_limits.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "machine.h"
#include "workload.h"

namespace bench {
namespace {

constexpr double kSmallest = 125e3;  // bytes that the first triad touches; each further one twice as many
constexpr int kTriads = 12;
constexpr int kPeaksPerRound = 5;  // each takes some hundredths of a second

double best(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

}  // namespace

double timeOf(const std::function<void()>& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double triadBandwidth(double footprint) {
  constexpr double kSeconds = 0.005;
  constexpr std::size_t kFewest = 5;
  const Case triad = teamTriad(footprint);
  const Planes anything(1, 1, 1);
  // A CUDA device works behind the caller's back until something is fetched from it.
  const int calls = NDevice::kind() == "cuda" ? 20 : 1;
  const auto finish = [&] {
    float value;
    if (calls > 1) NDevice::download(&value, anything.data(), 1, 1, 1);
  };
  const auto run = [&] {
    for (int i = 0; i < calls; ++i) triad.run();
    finish();
  };
  run();
  std::vector<double> times;
  for (double sum = 0.0; sum < kSeconds || times.size() < kFewest; sum += times.back()) {
    times.push_back(timeOf(run) / calls);
  }
  return 1e-9 * triad.bytes / median(times);
}

void Limits::measure() {
  for (int i = 0; i < kTriads; ++i) {
    const double footprint = std::ldexp(kSmallest, i);
    triads_[footprint].push_back(triadBandwidth(footprint));
  }
  for (int i = 0; i < kPeaksPerRound; ++i) {
    const ArithmeticPeak peak = measurePeak(threads_);
    flops_.push_back(peak.flops);
    roots_.push_back(peak.roots);
    clocks_.push_back(clockRate());
  }
}

double Limits::bandwidth(double footprint) const {
  auto above = triads_.lower_bound(footprint);
  if (above == triads_.begin()) return best(above->second);
  if (above == triads_.end()) return best(std::prev(above)->second);
  const auto below = std::prev(above);
  const double share = std::log(footprint / below->first) / std::log(above->first / below->first);
  return (1.0 - share) * best(below->second) + share * best(above->second);
}

ArithmeticPeak Limits::peak() const {
  return {best(flops_), best(roots_)};
}

std::vector<std::pair<double, double>> Limits::ladder() const {
  std::vector<std::pair<double, double>> out;
  for (const auto& triad : triads_) out.emplace_back(triad.first, best(triad.second));
  return out;
}

double Limits::clock() const {
  return best(clocks_);
}

}  // namespace bench
