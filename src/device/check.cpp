#include <tarvo/NDevice.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "device/device.h"

namespace device {
namespace {

std::mutex& handlerMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::function<void(const std::string&)>& handler() {
  static auto* function = new std::function<void(const std::string&)>;
  return *function;
}

// Number of device calls since failCall, and the one that fails (0: none).
std::atomic<long> callCount{0};
std::atomic<long> failingCall{0};

[[noreturn]] void endWith(const std::string& message) {
  std::function<void(const std::string&)> function;
  {
    const std::lock_guard<std::mutex> lock(handlerMutex());
    function = handler();
  }
  if (function) {
    const Callback callback;
    function(message);
  }
  std::fputs(message.c_str(), stderr);
  std::exit(1);
}

}  // namespace

Code countCall(Code failure) {
  const long failing = failingCall.load(std::memory_order_relaxed);
  if (callCount.fetch_add(1, std::memory_order_relaxed) + 1 != failing) return kSuccess;
  failingCall = 0;
  return failure;
}

void checkCall(Code code, const char* unit, int line) {
  if (code == kSuccess) return;
  takeLastError();  // the same error, which must not show again at a later check
  char message[512];
  std::snprintf(message, sizeof message, "Cuda error in file '%s' in line %i : %s.\n", unit, line,
                text(code));
  endWith(message);
}

void checkLaunch(const char* label, const char* unit, int line) {
  const Code code = takeLastError();
  if (code == kSuccess) return;
  char message[512];
  std::snprintf(message, sizeof message, "Cuda error: %s in file '%s' in line %i : %s.\n", label, unit, line,
                text(code));
  endWith(message);
}

}  // namespace device

namespace NDevice {

void onError(std::function<void(const std::string&)> function) {
  const std::lock_guard<std::mutex> lock(device::handlerMutex());
  device::handler() = std::move(function);
}

long failCall(long n) {
  device::failingCall = 0;
  const long made = device::callCount.exchange(0);
  device::failingCall = n;
  return made;
}

}  // namespace NDevice
