#pragma once

#include <tarvo/timers.h>

namespace device {

/// Milliseconds from `start` to `finish`.
inline double milliseconds(const timeval& start, const timeval& finish) {
  return static_cast<double>(finish.tv_sec - start.tv_sec) * 1000.0 +
         static_cast<double>(finish.tv_usec - start.tv_usec) * 0.001;
}

/// One reading of an accumulator: reads the clock into `start` now and, at stop(), into `finish`, then adds
/// the difference to `total`. A computation that is left by an exception adds nothing.
class Stopwatch {
 public:
  Stopwatch(timeval& start, timeval& finish, double& total) : start_(start), finish_(finish), total_(total) {
    gettimeofday(&start_, nullptr);
  }
  void stop() {
    gettimeofday(&finish_, nullptr);
    total_ += milliseconds(start_, finish_);
  }

 private:
  timeval& start_;
  timeval& finish_;
  double& total_;
};

}  // namespace device

/// A stopwatch on the accumulator timer_NAME with its pair of readings.
#define TARVO_STOPWATCH(NAME)                 \
  device::Stopwatch {                         \
    start_##NAME, finish_##NAME, timer_##NAME \
  }
