#pragma once

#include <cstddef>
#include <string>

/// What the device room needs from a device. Calls return a code, 0 for success; codes have the values of the
/// CUDA runtime on both devices. Nothing outside src/device uses this.
namespace device {

using Code = int;
constexpr Code kSuccess = 0;
constexpr Code kInvalidValue = 1;
constexpr Code kOutOfMemory = 2;
constexpr Code kLaunchFailure = 719;

enum class Direction { ToDevice, ToHost, OnDevice };

struct Backend {
  const char* kind;
  Code (*allocate)(void** memory, std::size_t bytes);
  Code (*release)(void* memory);
  Code (*clear)(void* memory, std::size_t bytes);
  /// Copies `rows` rows of `width` bytes; pitches in bytes.
  Code (*copyRows)(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch, std::size_t width,
                   std::size_t rows, Direction direction);
  Code (*synchronize)();
  /// Returns and clears the last error of a launch or an asynchronous step.
  Code (*takeLastError)();
  /// Makes `code` the last error.
  void (*setLastError)(Code code);
  const char* (*text)(Code code);
  /// Pitch in floats of a plane of width w.
  int (*pitch)(int w);
  std::string (*describe)();
  /// Whether large buffers should start at different offsets into a page.
  bool staggers;
};

const Backend& cpuBackend();

#if TARVO_WITH_CUDA
// The CUDA backend, its devices and its start. All call the CUDA runtime, so the CPU path uses none of them.
const Backend& cudaBackend();
/// Makes device `index` (-1: the current one) the one to use, after a trial kernel has run there. Returns
/// false on failure, with the reason in `why`.
bool startCuda(int index, std::string& why);
/// One line about CUDA device `index`, from 0 to countCudaDevices() - 1.
std::string describeCudaDevice(int index);
int countCudaDevices();
/// enterCuda makes the chosen device current and returns the caller's; leaveCuda restores that.
int enterCuda();
void leaveCuda(int callersDevice);
#endif

}  // namespace device
