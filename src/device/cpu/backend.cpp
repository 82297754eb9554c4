#include "device/backend.h"

#include <sys/mman.h>
#include <tarvo/NDevice.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "device/cpu/team.h"

namespace device {
namespace {

std::atomic<Code> lastError{kSuccess};

/// Buffers start at different offsets into a page, so that the same pixel of several buffers does not map to
/// the same cache sets.
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLine = 64;

/// Large buffers ask for huge pages: an assembly visits some thirty planes side by side, which is more small
/// pages than the processor's translation buffer holds.
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::size_t kHugeFrom = std::size_t{1} << 20;

#ifdef TARVO_POOL_PASSES_THROUGH
Code allocate(void** memory, std::size_t bytes) {
  *memory = std::malloc(bytes);  // exact size: a sanitizer sees the first byte too many
  return *memory != nullptr ? kSuccess : kOutOfMemory;
}
Code release(void* memory) {
  std::free(memory);
  return kSuccess;
}
#else
std::atomic<unsigned> allocations{0};

Code allocate(void** memory, std::size_t bytes) {
  if (bytes > SIZE_MAX - 2 * kHugePage) return kOutOfMemory;
  // 17 lines on from the last one: offsets repeat only after all 64 lines of a page.
  const std::size_t offset = (1 + allocations++ * 17u % 63u) * kLine;
  const std::size_t unit = bytes >= kHugeFrom ? kHugePage : kPage;
  const std::size_t size = (bytes + offset + unit - 1) / unit * unit;
  auto* base = static_cast<char*>(std::aligned_alloc(unit, size));
  if (base == nullptr) return kOutOfMemory;
#ifdef MADV_HUGEPAGE
  if (unit == kHugePage) madvise(base, size, MADV_HUGEPAGE);  // a hint, which may be refused
#endif
  char* start = base + offset;
  std::memcpy(start - sizeof(void*), &base, sizeof(void*));  // for release
  *memory = start;
  return kSuccess;
}

Code release(void* memory) {
  void* base = nullptr;
  std::memcpy(&base, static_cast<char*>(memory) - sizeof(void*), sizeof(void*));
  std::free(base);
  return kSuccess;
}
#endif

Code clear(void* memory, std::size_t bytes) {
  std::memset(memory, 0, bytes);
  return kSuccess;
}

Code copyRows(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch, std::size_t width,
              std::size_t rows, Direction /*direction*/) {
  if (width > toPitch || width > fromPitch) return kInvalidValue;
  if (toPitch == width && fromPitch == width) {
    std::memmove(to, from, width * rows);
    return kSuccess;
  }
  for (std::size_t row = 0; row < rows; ++row) {
    std::memcpy(static_cast<char*>(to) + row * toPitch, static_cast<const char*>(from) + row * fromPitch,
                width);
  }
  return kSuccess;
}

Code synchronize() {
  return kSuccess;
}
Code takeLastError() {
  return lastError.exchange(kSuccess);
}
void setLastError(Code code) {
  lastError = code;
}

const char* text(Code code) {
  switch (code) {
    case kSuccess:
      return "no error";
    case kInvalidValue:
      return "invalid argument";
    case kOutOfMemory:
      return "out of memory";
    case kLaunchFailure:
      return "unspecified launch failure";
    default:
      return "unknown error";
  }
}

/// An odd multiple of 16 floats: rows start on a cache line, and the planes of a stack do not all map to the
/// same cache sets (unless the height is a multiple of 64).
int pitch(int w) {
  return (((w + 15) / 16) | 1) * 16;
}

std::string describe() {
  return "cpu (" + std::to_string(cpu::teamSize()) + (cpu::teamSize() == 1 ? " thread, " : " threads, ") +
         NDevice::instructionSet() + ")";
}

}  // namespace

const Backend& cpuBackend() {
  static const Backend backend{"cpu",         allocate,     release, clear, copyRows, synchronize,
                               takeLastError, setLastError, text,    pitch, describe, true};
  return backend;
}

}  // namespace device
