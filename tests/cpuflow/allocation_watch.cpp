#include "cpuflow/allocation_watch.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> largest{0};

void* watched(std::size_t bytes) {
  std::size_t before = largest.load();
  while (bytes > before && !largest.compare_exchange_weak(before, bytes)) {
  }
  void* memory = std::malloc(bytes > 0 ? bytes : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

std::size_t largestAllocation() {
  return largest.exchange(0);
}

// These replace the operators in the whole process, the library included.
void* operator new(std::size_t bytes) {
  return watched(bytes);
}
void* operator new[](std::size_t bytes) {
  return watched(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
