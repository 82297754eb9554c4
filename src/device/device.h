#pragma once

#include "device/backend.h"

#include <atomic>
#include <cstddef>

/// Where device work runs, its calls, and how their errors end the process. Other rooms use this header,
/// memory.h and launch.h.
namespace device {

/// True where work runs on a CUDA device; chooses the device at the first use.
bool onCuda();

/// Stands at the top of an exported function on host data: one caller at a time, plain floating-point mode
/// (round to nearest, no flushing of denormals), the chosen CUDA device current. All is restored on return.
/// If an exception leaves the function the last error is forgotten, so that the next call starts clean. An
/// entry inside another of the same thread (one exported function calls another) does nothing. Throws
/// std::logic_error when entered from a callback of the library, and std::runtime_error on a CUDA device
/// after a fork.
class Entry {
 public:
  Entry();
  ~Entry();
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

 private:
  bool outermost_;
  int exceptions_;
  unsigned floatMode_;
#if TARVO_WITH_CUDA
  int callersDevice_ = -1;
#endif
};

/// Stands around every call of a client's function, during which this thread may not enter the library.
class Callback {
 public:
  Callback();
  ~Callback();
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

 private:
  bool before_;
};

/// Sets plain floating-point mode for the calling thread; returns the mode before, for restoreFloatMode.
unsigned plainFloatMode();
void restoreFloatMode(unsigned mode);

// Device calls. clear, the copies and synchronize count for NDevice::failCall. The caller checks their codes.
Code clear(void* memory, std::size_t bytes);
Code copyRows(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch, std::size_t width,
              std::size_t rows, Direction direction);
Code copyFloats(float* to, const float* from, std::size_t floats, Direction direction);
/// Copies `planes` stacked planes of h x w between pitches in floats.
Code copyPlanes(float* to, int toPitch, const float* from, int fromPitch, int h, int w, int planes,
                Direction direction);
/// Waits for the device. An error shows at the next launch check.
void synchronize();
Code takeLastError();
const char* text(Code code);

/// Called before every launch; false if a failure is injected and the launch must not run.
bool beginLaunch();
/// Counts one device call; returns the code with which it must fail (given as `failure`), or kSuccess.
Code countCall(Code failure);

/// Call check: unless `code` is success, ends the process with the fixed message (see NDevice::onError).
void checkCall(Code code, const char* unit, int line);
/// Launch check: the same for the last error, under the label of the step.
void checkLaunch(const char* label, const char* unit, int line);

}  // namespace device

/// Checks of a unit's device calls and launches; kUnit is the unit's name, a constant of every unit.
#define TARVO_CALL(call) device::checkCall((call), kUnit, __LINE__)
#define TARVO_LAUNCHED(label) device::checkLaunch((label), kUnit, __LINE__)
