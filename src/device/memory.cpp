#include "device/memory.h"

#include <pthread.h>
#include <tarvo/NDevice.h>

#include <climits>
#include <mutex>
#include <stdexcept>
#include <string>

#include "device/choice.h"
#include "device/pool.h"

namespace device {
namespace {

// Never destroyed: a process may end from inside a computation.
// A fork waits until no other thread is inside, so that the child finds it whole.
Pool& pool() {
  static Pool* instance = [] {
    pthread_atfork([] { pool().mutex().lock(); }, [] { pool().mutex().unlock(); },
                   [] { pool().mutex().unlock(); });
    return new Pool;
  }();
  return *instance;
}

}  // namespace

namespace {

/// Memory of `floats` floats by one of the pool's two ways.
Code request(float** memory, std::size_t floats, Code (Pool::*kind)(void**, std::size_t)) {
  const Code injected = countCall(kOutOfMemory);
  if (injected != kSuccess) return injected;
  if (floats == 0 || floats > SIZE_MAX / 2 / sizeof(float)) return kInvalidValue;
  void* got = nullptr;
  const std::lock_guard<std::mutex> lock(pool().mutex());
  const Code code = (pool().*kind)(&got, floats * sizeof(float));
  if (code == kSuccess) *memory = static_cast<float*>(got);
  return code;
}

bool setKept(float* memory, bool kept) {
  const std::lock_guard<std::mutex> lock(pool().mutex());
  return pool().setKept(memory, kept);
}

}  // namespace

Code allocate(float** memory, std::size_t floats) {
  return request(memory, floats, &Pool::allocate);
}

Code allocateWhole(float** memory, std::size_t floats) {
  return request(memory, floats, &Pool::allocateWhole);
}

Code reserve(std::size_t floats) {
  const Code injected = countCall(kOutOfMemory);
  if (injected != kSuccess) return injected;
  if (floats > SIZE_MAX / 2 / sizeof(float)) return kOutOfMemory;
  const std::lock_guard<std::mutex> lock(pool().mutex());
  return pool().reserve(floats * sizeof(float));
}

int chosenPitch(int w) {
  return chosenBackend().pitch(w);
}

Code allocatePitched(float** memory, int* pitch, int w, int rows) {
  *pitch = chosenPitch(w);
  return allocate(memory, planeFloats(rows, *pitch));
}

Code release(float* memory) {
  if (memory == nullptr) return kSuccess;
  Code code = kSuccess;
  {
    const std::lock_guard<std::mutex> lock(pool().mutex());
    code = pool().release(memory);
  }
  const Code injected = countCall(kInvalidValue);
  return injected != kSuccess ? injected : code;
}

float* detach(float* memory) {
  if (memory != nullptr && !setKept(memory, false)) {
    throw std::logic_error("device::detach: memory that shares a slab cannot be handed out");
  }
  return memory;
}

float* attach(float* memory) {
  setKept(memory, true);
  return memory;
}

}  // namespace device

namespace NDevice {

float* allocate(std::size_t floats) {
  float* memory = nullptr;
  if (device::allocateWhole(&memory, floats) != device::kSuccess) {
    device::takeLastError();
    return nullptr;
  }
  return device::detach(memory);
}

float* allocatePlane(int h, int w, int& pitch, int planes) {
  if (h <= 0 || w <= 0 || planes <= 0 || h > INT_MAX / planes) {
    throw std::invalid_argument("NDevice::allocatePlane: h, w and planes must be positive, got " +
                                std::to_string(h) + ", " + std::to_string(w) + " and " +
                                std::to_string(planes));
  }
  float* memory = nullptr;
  pitch = device::chosenPitch(w);
  if (device::allocateWhole(&memory, device::planeFloats(h, pitch, planes)) != device::kSuccess) {
    device::takeLastError();
    return nullptr;
  }
  return device::detach(memory);
}

void release(float* memory) {
  device::release(memory);
}

namespace {

void throwUnlessSuccess(device::Code code, const char* function) {
  if (code != device::kSuccess) {
    device::takeLastError();
    throw std::runtime_error(std::string("NDevice::") + function + ": " + device::text(code));
  }
}

}  // namespace

void upload(float* to, const float* host, int h, int w, int p, int planes) {
  throwUnlessSuccess(device::copyPlanes(to, p, host, w, h, w, planes, device::Direction::ToDevice), "upload");
}

void download(float* host, const float* from, int h, int w, int p, int planes) {
  throwUnlessSuccess(device::copyPlanes(host, w, from, p, h, w, planes, device::Direction::ToHost),
                     "download");
}

void trim() {
  const std::lock_guard<std::mutex> lock(device::pool().mutex());
  device::pool().trim();
}

MemoryUse memoryUse() {
  const std::lock_guard<std::mutex> lock(device::pool().mutex());
  const std::size_t inUse = device::pool().bytesInUse();
  return {inUse, device::pool().bytesHeld() - inUse};
}

}  // namespace NDevice
