#pragma once

// What most tests need: planes on the device, the library's settings, pictures and tolerances.

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <ostream>

#include "support/device_planes.h"
#include "support/library_state.h"
#include "support/scene.h"
#include "support/tolerance.h"

using tolerance::exact;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

inline std::ostream& operator<<(std::ostream& stream, const Size& size) {
  return stream << size.w << " x " << size.h;
}

/// Runs `work` with each of these numbers of threads.
template <class Work>
void withThreads(std::initializer_list<int> counts, const Work& work) {
  const KeepThreads keep;
  for (const int threads : counts) {
    SCOPED_TRACE(testing::Message() << threads << " threads");
    NDevice::threads(threads);
    work();
  }
}
