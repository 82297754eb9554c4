#pragma once

#include <tarvo/timers.h>

namespace device {

/// Milliseconds from `start` to `finish`.
inline double milliseconds(const timeval& start, const timeval& finish) {
  return static_cast<double>(finish.tv_sec - start.tv_sec) * 1000.0 +
         static_cast<double>(finish.tv_usec - start.tv_usec) * 0.001;
}

/// Adds the time from its construction to stop() to `total`: reads the clock into `start` now and into
/// `finish` at stop(). A computation that an exception ends adds nothing.
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

/// A stopwatch that adds to timer_NAME, with the readings start_NAME and finish_NAME.
#define TARVO_STOPWATCH(NAME)                 \
  device::Stopwatch {                         \
    start_##NAME, finish_##NAME, timer_##NAME \
  }
