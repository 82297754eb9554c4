#pragma once

#include <tarvo/export.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// Where device work runs, and its memory. Optional: unless a device was selected, the first computation
/// chooses a working CUDA device if there is one, else the CPU.
///
/// A device plane is a float pointer with height h (rows), width w (columns) and pitch p (floats between the
/// starts of two rows, p >= w), always passed in the order h, w, p; element (x, y) is at y * p + x. Planes of
/// one size are stacked vertically in one allocation, plane k starting at row k * h. On the CPU device a
/// device pointer is an ordinary host pointer.
namespace NDevice {

/// Chooses the device for all later work: "auto" (a working CUDA device, else the CPU), "cpu", "cuda" (the
/// current CUDA device) or "cuda:N". Throws std::invalid_argument for any other text and std::runtime_error,
/// with the reason, if the device cannot be used; the choice then stays as it was. "auto" never fails. Memory
/// of the device chosen before must not be used in later work.
TARVO_API void select(const std::string& device);

/// The chosen device and the reason, in one line, e.g. "cpu (2 threads, x86-64-v3): no CUDA device".
TARVO_API std::string current();

/// "cpu" or "cuda": the kind of device that work runs on.
TARVO_API std::string kind();

/// One line for each device that select() can choose.
TARVO_API std::vector<std::string> devices();

/// The vector instructions that the CPU device uses: "x86-64", "x86-64-v3" or "x86-64-v4"; "generic" on
/// processors of another kind.
TARVO_API std::string instructionSet();

/// The library's version, "major.minor.patch".
TARVO_API std::string version();

/// Number of threads that the CPU device uses, the caller's included. The default is the number of processors
/// that this process may use. Of a larger number only so many work; where the system gives no further thread,
/// the number becomes that of those there are. Results do not depend on it. Throws std::invalid_argument
/// unless n is between 1 and 1024.
TARVO_API void threads(int n);
TARVO_API int threads();

/// What to do on a device error. By default its message is printed to standard error and the process ends
/// with status 1. A handler may throw: the exception leaves the library, whose buffers are released, and the
/// next call works. If the handler returns, the message is printed and the process ends. An empty function
/// restores the default.
TARVO_API void onError(std::function<void(const std::string& message)> handler);

/// Makes the n-th device call from now on (an allocation, copy, clearing, release, launch or wait; 1 is the
/// next) fail once, so that a client can test what it does on a device error. 0 cancels this. Returns how
/// many device calls were made since the last call of this function.
TARVO_API long failCall(long n);

/// Kernel launches since the library was loaded. Where the CPU device has a function of its own for several
/// kernels, that counts as one; the number on a CUDA device is the same or slightly higher.
TARVO_API long launches();

/// Device memory for `floats` floats, contents undefined; null on failure or for 0 floats.
TARVO_API float* allocate(std::size_t floats);

/// Device memory for `planes` stacked planes of h x w. The pitch, which on one device depends on the width
/// alone, is stored in `pitch` (floats). Null on failure. Throws std::invalid_argument unless h, w and planes
/// are positive and h * planes fits an int.
TARVO_API float* allocatePlane(int h, int w, int& pitch, int planes = 1);

/// Releases memory from allocate, from allocatePlane or from a routine that hands planes to its caller. Null
/// is ignored.
TARVO_API void release(float* memory);

/// Copies `planes` dense host planes of h x w into a device stack of pitch p, or back. Padding is not
/// touched. Throws std::runtime_error with the device's error text on failure.
TARVO_API void upload(float* device, const float* host, int h, int w, int p, int planes = 1);
TARVO_API void download(float* host, const float* device, int h, int w, int p, int planes = 1);

/// Gives the device memory that the library keeps for its next call back to the system.
TARVO_API void trim();

/// Bytes of device memory in use, and kept for the next call.
struct MemoryUse {
  std::size_t inUse;
  std::size_t kept;
};
TARVO_API MemoryUse memoryUse();

}  // namespace NDevice
