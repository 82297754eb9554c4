#include "device/report.h"

#include <tarvo/NReport.h>

#include <atomic>
#include <cstdarg>
#include <mutex>
#include <utility>

#include "device/device.h"
#include "device/watch.h"

namespace {

std::atomic<std::FILE*> reportStream{nullptr};
std::atomic<bool> silent{false};
thread_local bool quiet = false;

// Never destroyed: a process may end from inside a computation.
std::mutex& callbackMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::function<void(int, int)>& callback() {
  static auto* function = new std::function<void(int, int)>;
  return *function;
}

// Plain variables are enough, since the computing functions run one at a time.
int currentRun = 0;
int runCount = 1;

}  // namespace

namespace report {

void print(const char* format, ...) {
  if (silent.load(std::memory_order_relaxed)) return;
  std::FILE* stream = reportStream.load(std::memory_order_relaxed);
  if (stream == nullptr && quiet) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stream != nullptr ? stream : stdout, format, arguments);
  va_end(arguments);
}

void progress(int done, int total) {
  std::function<void(int, int)> function;
  {
    const std::lock_guard<std::mutex> lock(callbackMutex());
    function = callback();
  }
  const int doneOfAll = currentRun * total + done, all = runCount * total;
  if (function) {
    const device::Callback scope;
    function(doneOfAll, all);
  }
  device::tellProgress(doneOfAll, all);
}

Runs::Runs(int runs) {
  currentRun = 0;
  runCount = runs;
}

Runs::~Runs() {
  currentRun = 0;
  runCount = 1;
}

// A member, so that only an existing sequence can advance.
void Runs::nextRun() {
  ++currentRun;
}

Quiet::Quiet() {
  quiet = true;
}

Quiet::~Quiet() {
  quiet = false;
}

}  // namespace report

namespace NReport {

void to(std::FILE* stream) {
  reportStream = stream;
  silent = false;
}

void silence() {
  silent = true;
}

void progress(std::function<void(int, int)> function) {
  const std::lock_guard<std::mutex> lock(callbackMutex());
  callback() = std::move(function);
}

}  // namespace NReport
