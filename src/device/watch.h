#pragma once

#include <functional>

/// What the caller of a long computation hears of it, and how it stops it.
namespace device {

/// While an object of this class exists, this thread's computation tells `progress` after each pass and calls
/// `poll` wherever it can be stopped. Either may be empty, and may throw, which ends the computation.
class Watching {
 public:
  Watching(const std::function<void(int, int)>& progress, const std::function<void()>& poll);
  ~Watching();
  Watching(const Watching&) = delete;
  Watching& operator=(const Watching&) = delete;

 private:
  const std::function<void(int, int)>* progressBefore_;
  const std::function<void()>* pollBefore_;
};

/// Calls this thread's `poll`, unless it was called less than 50 ms ago. Stands at every launch, between the
/// chunks that the caller's thread runs, and where it waits for its turn.
void poll();
/// Whether this thread has something to poll.
bool polled();

/// Calls this thread's `progress`.
void tellProgress(int done, int total);

}  // namespace device
