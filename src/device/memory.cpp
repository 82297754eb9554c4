#include "device/memory.h"

#include <pthread.h>
#include <tarvo/NDevice.h>

#include <climits>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "device/choice.h"

namespace device {
namespace {

#ifdef TARVO_POOL_PASSES_THROUGH
constexpr bool kKeepReleased = false;  // sanitizers must see every access to released memory
#else
constexpr bool kKeepReleased = true;
#endif

/// Buffers in use and free ones, both with their sizes and the backend that made them. A request takes the
/// smallest free buffer that holds it. Where none does, the largest free one is given back before a new one
/// is made: in a coarse-to-fine scheme, whose requests grow, the number of buffers then stays that of the
/// buffers in use at one time.
class Pool {
 public:
  Code allocate(float** memory, std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Backend& backend = chosenBackend();
    dropForeign(backend);
    auto fitting = free_.lower_bound(bytes);
    if (fitting != free_.end()) {
      *memory = static_cast<float*>(fitting->second);
      inUse_[*memory] = {fitting->first, &backend, true};
      free_.erase(fitting);
      return kSuccess;
    }
    if (!free_.empty()) giveBack(backend, std::prev(free_.end()));
    void* fresh = nullptr;
    Code code = backend.allocate(&fresh, bytes);
    if (code == kOutOfMemory && !free_.empty()) {
      trimFree(backend);
      backend.takeLastError();
      code = backend.allocate(&fresh, bytes);
    }
    if (code != kSuccess) return code;
    *memory = static_cast<float*>(fresh);
    inUse_[*memory] = {bytes, &backend, true};
    return kSuccess;
  }

  Code release(float* memory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = inUse_.find(memory);
    if (found == inUse_.end()) return kInvalidValue;
    const Record record = found->second;
    inUse_.erase(found);
    if (kKeepReleased && record.pooled && record.backend == &chosenBackend()) {
      try {
        free_.emplace(record.bytes, memory);
        return kSuccess;
      } catch (const std::bad_alloc&) {  // maybe while another one unwinds: it is given back instead
      }
    }
    return record.backend->release(memory);
  }

  void setPooled(float* memory, bool pooled) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = inUse_.find(memory);
    if (found != inUse_.end()) found->second.pooled = pooled;
  }

  std::mutex& mutex() { return mutex_; }

  void trim() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (freeBackend_ != nullptr) trimFree(*freeBackend_);
  }

  NDevice::MemoryUse use() {
    const std::lock_guard<std::mutex> lock(mutex_);
    NDevice::MemoryUse use{0, 0};
    for (const auto& entry : inUse_) use.inUse += entry.second.bytes;
    for (const auto& entry : free_) use.kept += entry.first;
    return use;
  }

 private:
  struct Record {
    std::size_t bytes;
    const Backend* backend;
    bool pooled;
  };
  using FreeList = std::multimap<std::size_t, void*>;

  void giveBack(const Backend& backend, FreeList::iterator entry) {
    backend.release(entry->second);
    free_.erase(entry);
  }
  void trimFree(const Backend& backend) {
    while (!free_.empty()) giveBack(backend, free_.begin());
  }
  /// Free buffers of a device that is no longer the chosen one are given back.
  void dropForeign(const Backend& backend) {
    if (freeBackend_ != nullptr && freeBackend_ != &backend) trimFree(*freeBackend_);
    freeBackend_ = &backend;
  }

  std::mutex mutex_;
  FreeList free_;
  const Backend* freeBackend_ = nullptr;
  std::unordered_map<const void*, Record> inUse_;
};

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

Code allocate(float** memory, std::size_t floats) {
  const Code injected = countCall(kOutOfMemory);
  if (injected != kSuccess) return injected;
  if (floats == 0 || floats > SIZE_MAX / 2 / sizeof(float)) return kInvalidValue;
  return pool().allocate(memory, floats * sizeof(float));
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
  const Code code = pool().release(memory);
  const Code injected = countCall(kInvalidValue);
  return injected != kSuccess ? injected : code;
}

float* detach(float* memory) {
  pool().setPooled(memory, false);
  return memory;
}

float* attach(float* memory) {
  pool().setPooled(memory, true);
  return memory;
}

}  // namespace device

namespace NDevice {

float* allocate(std::size_t floats) {
  float* memory = nullptr;
  if (device::allocate(&memory, floats) != device::kSuccess) {
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
  if (device::allocatePitched(&memory, &pitch, w, h * planes) != device::kSuccess) {
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
  device::pool().trim();
}

MemoryUse memoryUse() {
  return device::pool().use();
}

}  // namespace NDevice
