#pragma once

#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "peak.h"

namespace bench {

/// The most that the machine gives to `threads` threads, best of the samples; each call of measure() takes
/// a few samples of all. What else the machine does can only lower a sample.
class Limits {
 public:
  explicit Limits(int threads) : threads_(threads) {}
  void measure();

  /// Bandwidth [GB/s] of the team triad that touches this many bytes, between those measured.
  double bandwidth(double footprint) const;
  ArithmeticPeak peak() const;
  /// Every footprint measured [bytes] with its bandwidth.
  std::vector<std::pair<double, double>> ladder() const;
  /// Clock of a single thread [GHz].
  double clock() const;
  int threads() const { return threads_; }

 private:
  int threads_;
  std::map<double, std::vector<double>> triads_;
  std::vector<double> flops_, roots_, clocks_;
};

/// Bandwidth [GB/s] of the team triad that touches this many bytes: median of calls that together take some
/// milliseconds at least.
double triadBandwidth(double footprint);

/// Seconds of a call.
double timeOf(const std::function<void()>& run);

}  // namespace bench
