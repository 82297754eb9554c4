#include "device/watch.h"

#include <chrono>

#include "device/device.h"

namespace device {
namespace {

using Clock = std::chrono::steady_clock;

thread_local const std::function<void(int, int)>* progressOf = nullptr;
thread_local const std::function<void()>* pollOf = nullptr;
thread_local Clock::time_point lastPoll;

}  // namespace

Watching::Watching(const std::function<void(int, int)>& progress, const std::function<void()>& poll)
    : progressBefore_(progressOf), pollBefore_(pollOf) {
  progressOf = progress ? &progress : nullptr;
  pollOf = poll ? &poll : nullptr;
  lastPoll = {};
}

Watching::~Watching() {
  progressOf = progressBefore_;
  pollOf = pollBefore_;
}

bool polled() {
  return pollOf != nullptr;
}

void poll() {
  constexpr std::chrono::milliseconds kPause{50};
  if (pollOf == nullptr || Clock::now() - lastPoll < kPause) return;
  {
    const Callback scope;
    (*pollOf)();
  }
  lastPoll = Clock::now();
}

void tellProgress(int done, int total) {
  if (progressOf == nullptr) return;
  const Callback scope;
  (*progressOf)(done, total);
}

}  // namespace device
