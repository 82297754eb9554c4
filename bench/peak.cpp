#include "peak.h"

#if defined(__linux__)
#include <sched.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

// Compiled with -ffp-contract=fast (see CMakeLists.txt), so that a * b + c on vectors is one fused step where
// the instruction set has it. A step must wait about 4 cycles for the last one of its chain and two can begin
// in each cycle: 8 chains would do, 12 leave room and still fit into 16 registers with their two constants.

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Loop = float (*)(long);

constexpr int kChains = 12;
constexpr long kSteps = 2000000;     // of each chain of multiply-adds: some milliseconds
constexpr long kRootSteps = 100000;  // of each chain of roots

#define ALWAYS_INLINE inline __attribute__((always_inline))

volatile float start = 1.5f;  // unknown to the compiler, which else would compute ahead
volatile float sink;          // keeps the results alive

template <class Vector>
ALWAYS_INLINE float sumOf(const Vector* chains) {
  Vector sum = chains[0];
  for (int k = 1; k < kChains; ++k) sum += chains[k];
  return static_cast<float>(sum[0]);
}

template <class Vector>
ALWAYS_INLINE float multiplyAdds(long steps) {
  Vector chains[kChains];
  for (int k = 0; k < kChains; ++k) chains[k] = Vector{} + (start + static_cast<float>(k));
  const Vector factor = Vector{} + 0.999f;
  const Vector term = Vector{} + 0.001f;
  for (long i = 0; i < steps; ++i) {
#pragma GCC unroll 12
    for (int k = 0; k < kChains; ++k) chains[k] = chains[k] * factor + term;
  }
  return sumOf(chains);
}

/// Root and division of kChains independent vectors; the compiler makes vectors of the lanes.
template <int kLanes>
ALWAYS_INLINE float inverseRoots(long steps) {
  double values[kChains * kLanes];
  for (int k = 0; k < kChains * kLanes; ++k) values[k] = static_cast<double>(start) + k;
  for (long i = 0; i < steps; ++i) {
#pragma omp simd
    for (int k = 0; k < kChains * kLanes; ++k) values[k] = 2.0 / std::sqrt(values[k]);  // never trivial
  }
  double sum = 0.0;
  for (const double value : values) sum += value;
  return static_cast<float>(sum);
}

using Vector16 = float __attribute__((vector_size(16)));
using Vector32 = float __attribute__((vector_size(32)));
using Vector64 = float __attribute__((vector_size(64)));

struct Unit {
  VectorUnit unit;
  Loop multiplyAdds, inverseRoots;
};

__attribute__((noinline)) float addsPlain(long n) {
  return multiplyAdds<Vector16>(n);
}
__attribute__((noinline)) float rootsPlain(long n) {
  return inverseRoots<2>(n);
}
#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((noinline, target("avx2,fma"))) float addsAvx2(long n) {
  return multiplyAdds<Vector32>(n);
}
__attribute__((noinline, target("avx2,fma"))) float rootsAvx2(long n) {
  return inverseRoots<4>(n);
}
__attribute__((noinline, target("avx512f"))) float addsAvx512(long n) {
  return multiplyAdds<Vector64>(n);
}
__attribute__((noinline, target("avx512f"))) float rootsAvx512(long n) {
  return inverseRoots<8>(n);
}
#endif

/// The widest vectors of this processor.
Unit widest() {
#if defined(__x86_64__) && defined(__GNUC__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return {{16, true}, addsAvx512, rootsAvx512};
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
    return {{8, true}, addsAvx2, rootsAvx2};
  return {{4, false}, addsPlain, rootsPlain};
#else
  return {{4, true}, addsPlain, rootsPlain};
#endif
}

/// Ties the calling thread to the index-th processor that the process may use: two new threads else begin on
/// the same one and stay there for longer than the measurement lasts.
void settle(int index) {
#if defined(__linux__)
  cpu_set_t all, one;
  if (sched_getaffinity(0, sizeof all, &all) != 0) return;
  CPU_ZERO(&one);
  int count = index % CPU_COUNT(&all);
  for (int cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
    if (CPU_ISSET(cpu, &all) && count-- == 0) CPU_SET(cpu, &one);
  }
  sched_setaffinity(0, sizeof one, &one);
#else
  static_cast<void>(index);
#endif
}

/// Seconds in which `threads` threads, begun together, run the loop once each.
double seconds(Loop loop, long steps, int threads) {
  std::vector<std::thread> team;
  std::vector<Clock::time_point> begin(static_cast<std::size_t>(threads)), end(begin.size());
  std::atomic<int> ready{0};
  team.reserve(begin.size());
  for (int i = 0; i < threads; ++i) {
    team.emplace_back([&, i] {
      settle(i);
      sink = loop(steps / 10);  // to full clock
      ready += 1;
      while (ready < threads) std::this_thread::yield();
      begin[static_cast<std::size_t>(i)] = Clock::now();
      sink = loop(steps);
      end[static_cast<std::size_t>(i)] = Clock::now();
    });
  }
  for (std::thread& thread : team) thread.join();
  const auto first = *std::min_element(begin.begin(), begin.end());
  return std::chrono::duration<double>(*std::max_element(end.begin(), end.end()) - first).count();
}

}  // namespace

VectorUnit vectorUnit() {
  return widest().unit;
}

ArithmeticPeak measurePeak(int threads) {
  const Unit unit = widest();
  const double adds = 1e-9 * kChains * unit.unit.lanes * threads;
  return {2.0 * adds * kSteps / seconds(unit.multiplyAdds, kSteps, threads),
          0.5 * adds * kRootSteps / seconds(unit.inverseRoots, kRootSteps, threads)};
}

double clockRate() {
  constexpr long kTurns = 500000;
  constexpr int kAdditions = 64;
  unsigned long value = 1, term = 3;
  const auto begin = Clock::now();
  for (long i = 0; i < kTurns; ++i) {
#pragma GCC unroll 64
    for (int k = 0; k < kAdditions; ++k) {
      value += term;
      asm volatile("" : "+r"(value), "+r"(term));  // nothing is to be summed up at compile time
    }
  }
  const std::chrono::duration<double> time = Clock::now() - begin;
  sink = static_cast<float>(value);
  return 1e-9 * kTurns * kAdditions / time.count();
}

}  // namespace bench
