#pragma once

#include <utility>

#include "device/device.h"

namespace device {

/// Device memory from the pool (device/pool.h), which keeps what is released, so that repeated work allocates
/// nothing. Contents are undefined.
Code allocate(float** memory, std::size_t floats);
/// The same as a buffer of its own, which can be handed to a caller (detach).
Code allocateWhole(float** memory, std::size_t floats);
/// Makes the pool hold one free stretch of so many floats: requests that follow share it.
Code reserve(std::size_t floats);
/// Memory of `rows` rows of w floats at a pitch of its own, which is stored in `pitch` (floats).
Code allocatePitched(float** memory, int* pitch, int w, int rows);
/// The chosen device's own pitch for planes of width w, in floats.
int chosenPitch(int w);
Code release(float* memory);
/// Takes memory of allocateWhole out of the pool's care: it is the caller's, who gives it back with
/// NDevice::release.
float* detach(float* memory);
/// Takes detached memory back into the pool's care.
float* attach(float* memory);

/// Owner of device memory. The normal way releases it explicitly, TARVO_CALL(buffer.release()), so that a
/// failure is seen; the destructor acts only when an exception passes, and ignores failures.
class Buffer {
 public:
  Buffer() = default;
  Buffer(Buffer&& other) noexcept : memory_(std::exchange(other.memory_, nullptr)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(memory_, other.memory_);
    return *this;
  }
  ~Buffer() {
    if (memory_ != nullptr) device::release(memory_);
  }

  /// The owner of memory that a routine has handed out.
  static Buffer adopt(float* memory) {
    Buffer buffer;
    buffer.memory_ = attach(memory);
    return buffer;
  }

  Code allocate(std::size_t floats) { return device::allocate(&memory_, floats); }
  Code allocateWhole(std::size_t floats) { return device::allocateWhole(&memory_, floats); }
  Code allocatePitched(int* pitch, int w, int rows) {
    return device::allocatePitched(&memory_, pitch, w, rows);
  }
  /// allocatePitched for `planes` planes of h x w, then a copy of the dense host planes: two device calls,
  /// the second only after the first.
  Code upload(int* pitch, const float* host, int h, int w, int planes) {
    const Code code = allocatePitched(pitch, w, h * planes);
    if (code != kSuccess) return code;
    return copyPlanes(memory_, *pitch, host, w, h, w, planes, Direction::ToDevice);
  }
  Code release() { return device::release(std::exchange(memory_, nullptr)); }
  float* get() const { return memory_; }
  float* detach() { return device::detach(std::exchange(memory_, nullptr)); }

 private:
  float* memory_ = nullptr;
};

/// Floats of `planes` stacked planes of height h and pitch p.
inline std::size_t planeFloats(int h, int p, int planes = 1) {
  return static_cast<std::size_t>(h) * static_cast<std::size_t>(p) * static_cast<std::size_t>(planes);
}

}  // namespace device
