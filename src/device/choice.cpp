#include "device/choice.h"

#include <pthread.h>
#include <tarvo/NDevice.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <stdexcept>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include "device/cpu/team.h"
#include "device/device.h"
#include "device/watch.h"

namespace device {
namespace {

std::atomic<const Backend*> chosen{nullptr};
std::atomic<bool> forked{false};  // the CUDA runtime does not survive a fork

// Never destroyed: a process may end from inside a computation.
struct Shared {
  std::timed_mutex entry;
  std::recursive_mutex choice;
  std::string reason;
};
Shared*& sharedPointer() {
  static Shared* shared = [] {
    pthread_atfork(nullptr, nullptr, [] {
      auto* fresh = new Shared;  // another thread of the parent may hold the old locks
      fresh->reason = sharedPointer()->reason;
      sharedPointer() = fresh;
      forked = true;
    });
    return new Shared;
  }();
  return shared;
}

thread_local bool insideEntry = false;
thread_local bool insideCallback = false;

std::atomic<long> launchCount{0};

void choose(const Backend& backend, const std::string& reason) {
  sharedPointer()->reason = reason;
  chosen = &backend;
}

void chooseAutomatically() {
#if TARVO_WITH_CUDA
  std::string why;
  if (!forked && startCuda(-1, why)) {
    choose(cudaBackend(), "the first working CUDA device");
  } else {
    choose(cpuBackend(), forked ? "CUDA cannot be used after a fork" : why);
  }
#else
  choose(cpuBackend(), "this library was built without CUDA");
#endif
}

void chooseCuda(int index) {
#if TARVO_WITH_CUDA
  std::string why;
  if (forked) throw std::runtime_error("device \"cuda\" cannot be used after a fork");
  if (!startCuda(index, why)) throw std::runtime_error("device \"cuda\" cannot be used: " + why);
  choose(cudaBackend(), "asked for");
#else
  static_cast<void>(index);
  throw std::runtime_error("device \"cuda\" cannot be used: this library was built without CUDA");
#endif
}

/// The number after "cuda:", or -2 if there is none.
int cudaIndex(const std::string& text) {
  const std::string digits = text.substr(5);
  if (digits.empty() || digits.size() > 3 || digits.find_first_not_of("0123456789") != std::string::npos)
    return -2;
  return std::stoi(digits);
}

/// Takes the lock of the entries; a caller with something to poll can leave while it waits.
void waitForTurn() {
  std::timed_mutex& entry = sharedPointer()->entry;
  if (!polled()) {
    entry.lock();
    return;
  }
  constexpr std::chrono::milliseconds kPause{50};
  while (!entry.try_lock_for(kPause)) poll();
}

}  // namespace

const Backend& chosenBackend() {
  const Backend* backend = chosen.load(std::memory_order_acquire);
  if (backend != nullptr) return *backend;
  const std::lock_guard<std::recursive_mutex> lock(sharedPointer()->choice);
  if (chosen == nullptr) chooseAutomatically();
  return *chosen.load();
}

bool onCuda() {
#if TARVO_WITH_CUDA
  return &chosenBackend() != &cpuBackend();
#else
  return false;
#endif
}

unsigned plainFloatMode() {
#if defined(__x86_64__)
  const unsigned mode = _mm_getcsr();
  _mm_setcsr((mode & ~0xE040u));  // round to nearest; neither results nor operands flushed to zero
  return mode;
#else
  return 0;
#endif
}

void restoreFloatMode(unsigned mode) {
#if defined(__x86_64__)
  _mm_setcsr((_mm_getcsr() & ~0xE040u) | (mode & 0xE040u));
#else
  static_cast<void>(mode);
#endif
}

Entry::Entry() : outermost_(!insideEntry), exceptions_(std::uncaught_exceptions()), floatMode_(0) {
  if (insideCallback)
    throw std::logic_error("tarvo: a computing function was called from a callback of the library");
  if (!outermost_) return;
  waitForTurn();
  insideEntry = true;
  floatMode_ = plainFloatMode();
#if TARVO_WITH_CUDA
  if (onCuda()) {
    if (forked) {
      restoreFloatMode(floatMode_);
      insideEntry = false;
      sharedPointer()->entry.unlock();
      throw std::runtime_error(
          "tarvo: a CUDA device cannot be used after a fork; NDevice::select(\"cpu\") can");
    }
    callersDevice_ = enterCuda();
  }
#endif
}

Entry::~Entry() {
  if (!outermost_) return;
  if (std::uncaught_exceptions() > exceptions_) takeLastError();
#if TARVO_WITH_CUDA
  if (callersDevice_ >= 0) leaveCuda(callersDevice_);
#endif
  restoreFloatMode(floatMode_);
  insideEntry = false;
  sharedPointer()->entry.unlock();
}

Callback::Callback() : before_(insideCallback) {
  insideCallback = true;
}

Callback::~Callback() {
  insideCallback = before_;
}

Code clear(void* memory, std::size_t bytes) {
  const Code injected = countCall(kInvalidValue);
  return injected != kSuccess ? injected : chosenBackend().clear(memory, bytes);
}

Code copyRows(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch, std::size_t width,
              std::size_t rows, Direction direction) {
  const Code injected = countCall(kInvalidValue);
  if (injected != kSuccess) return injected;
  return chosenBackend().copyRows(to, toPitch, from, fromPitch, width, rows, direction);
}

Code copyFloats(float* to, const float* from, std::size_t floats, Direction direction) {
  const std::size_t bytes = floats * sizeof(float);
  return copyRows(to, bytes, from, bytes, bytes, 1, direction);
}

Code copyPlanes(float* to, int toPitch, const float* from, int fromPitch, int h, int w, int planes,
                Direction direction) {
  constexpr std::size_t kFloat = sizeof(float);
  return copyRows(to, static_cast<std::size_t>(toPitch) * kFloat, from,
                  static_cast<std::size_t>(fromPitch) * kFloat, static_cast<std::size_t>(w) * kFloat,
                  static_cast<std::size_t>(h) * static_cast<std::size_t>(planes), direction);
}

void synchronize() {
  const Code injected = countCall(kLaunchFailure);
  const Code code = injected != kSuccess ? injected : chosenBackend().synchronize();
  if (code != kSuccess) chosenBackend().setLastError(code);
}

Code takeLastError() {
  return chosenBackend().takeLastError();
}
const char* text(Code code) {
  return chosenBackend().text(code);
}

bool beginLaunch() {
  poll();
  launchCount.fetch_add(1, std::memory_order_relaxed);
  const Code injected = countCall(kLaunchFailure);
  if (injected == kSuccess) return true;
  chosenBackend().setLastError(injected);
  return false;
}

}  // namespace device

namespace NDevice {

void select(const std::string& name) {
  if (device::insideEntry || device::insideCallback)
    throw std::logic_error("NDevice::select was called from a callback of the library");
  const std::lock_guard<std::timed_mutex> entry(device::sharedPointer()->entry);
  const std::lock_guard<std::recursive_mutex> lock(device::sharedPointer()->choice);
  if (name == "auto") {
    device::chooseAutomatically();
  } else if (name == "cpu") {
    device::choose(device::cpuBackend(), "asked for");
  } else if (name == "cuda") {
    device::chooseCuda(-1);
  } else if (name.compare(0, 5, "cuda:") == 0 && device::cudaIndex(name) >= 0) {
    device::chooseCuda(device::cudaIndex(name));
  } else {
    throw std::invalid_argument("NDevice::select: device must be auto, cpu, cuda or cuda:N, got \"" + name +
                                "\"");
  }
}

std::string current() {
  const device::Backend& backend = device::chosenBackend();
  const std::lock_guard<std::recursive_mutex> lock(device::sharedPointer()->choice);
  return backend.describe() + ": " + device::sharedPointer()->reason;
}

std::string kind() {
  return device::chosenBackend().kind;
}

std::vector<std::string> devices() {
  std::vector<std::string> lines{device::cpuBackend().describe()};
#if TARVO_WITH_CUDA
  for (int i = 0; !device::forked && i < device::countCudaDevices(); ++i) {
    lines.push_back(device::describeCudaDevice(i));
  }
#endif
  return lines;
}

std::string instructionSet() {
#if defined(TARVO_ISA_DISPATCH) && defined(__x86_64__) && !defined(__clang__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("x86-64-v4")) return "x86-64-v4";
  if (__builtin_cpu_supports("x86-64-v3")) return "x86-64-v3";
  return "x86-64";
#elif defined(__AVX512F__)
  return "x86-64-v4";
#elif defined(__AVX2__)
  return "x86-64-v3";
#elif defined(__x86_64__)
  return "x86-64";
#else
  return "generic";
#endif
}

std::string version() {
  return TARVO_VERSION;
}

long launches() {
  return device::launchCount.load(std::memory_order_relaxed);
}

void threads(int n) {
  if (n < 1 || n > 1024) {
    throw std::invalid_argument("NDevice::threads: n must be in 1 ... 1024, got " + std::to_string(n));
  }
  device::cpu::setTeamSize(n);
}

int threads() {
  return device::cpu::teamSize();
}

}  // namespace NDevice
