#include "api/allocation_count.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<long> count{0};
}

long allocationCount() {
  return count;
}

#ifndef TARVO_POOL_PASSES_THROUGH
// Replaces the C library's function in the whole process; the CPU device is its only user.
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  ++count;
  void* memory = nullptr;
  return posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}
#endif
