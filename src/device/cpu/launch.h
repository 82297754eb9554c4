#pragma once

#include <algorithm>
#include <type_traits>

#include "device/cpu/band.h"
#include "device/cpu/columns.h"
#include "device/cpu/team.h"
#include "device/kernel.h"

namespace device::cpu {

template <class Kernel, class = void>
struct HasInside : std::false_type {};
template <class Kernel>
struct HasInside<Kernel, std::void_t<decltype(Kernel::kReach)>> : std::true_type {};

template <class Kernel, class = void>
struct IsInPlace : std::false_type {};
template <class Kernel>
struct IsInPlace<Kernel, std::enable_if_t<Kernel::kInPlace>> : std::true_type {};

/// One row: the border columns singly; those between in vectors, since there the compiler drops the border
/// tests.
template <class Kernel>
TARVO_HOST void runRow(const Kernel& kernel, int y, int w) {
  kernel(0, y);
#pragma omp simd
  for (int x = 1; x < w - 1; ++x) kernel(x, y);
  if (w > 1) kernel(w - 1, y);
}

template <class Kernel>
struct InnerRow {
  const Kernel& kernel;
  int y;
  TARVO_HOST void at(int x) const { kernel.inside(x, y); }
};

/// The same for a kernel with `inside`, in a row that is neither the first nor the last.
template <class Kernel>
TARVO_HOST void runInnerRow(const Kernel& kernel, int y, int w) {
  constexpr int kReach = Kernel::kReach;
  if (w < kStep + 2 * kReach) {
    for (int x = 0; x < w; ++x) kernel(x, y);
    return;
  }
  const int end = w - kReach;
  for (int x = 0; x < kReach; ++x) kernel(x, y);
  if constexpr (IsInPlace<Kernel>::value) {
#pragma omp simd
    for (int x = kReach; x < end; ++x) kernel.inside(x, y);
  } else {
    forColumns(InnerRow<Kernel>{kernel, y}, kReach, end);
  }
  for (int x = end; x < w; ++x) kernel(x, y);
}

/// Rows y0 ... y1 - 1. The kernel is taken by value and the first and last row of the plane stand apart, so
/// that the compiler sees that neighbours exist in the rows between.
template <class Kernel>
TARVO_BAND void runBand(Kernel kernel, int y0, int y1) {
  const int h = rowsOf(kernel, 0);
  const int w = columnsOf(kernel, 0);
  if (y0 == 0) runRow(kernel, 0, w);
  const int end = std::min(y1, h - 1);
  for (int y = std::max(y0, 1); y < end; ++y) {
    if constexpr (HasInside<Kernel>::value) {
      runInnerRow(kernel, y, w);
    } else {
      if (y < 1 || y >= rowsOf(kernel, 0) - 1) __builtin_unreachable();
      runRow(kernel, y, w);
    }
  }
  if (y1 == h && h > 1) runRow(kernel, h - 1, w);
}

template <class Kernel>
void launchPlane(const Kernel& kernel) {
  const int h = rowsOf(kernel, 0);
  const int w = columnsOf(kernel, 0);
  if (h <= 0 || w <= 0) return;
  forBands(h, w, [&kernel](int y0, int y1) { runBand(kernel, y0, y1); });
}

}  // namespace device::cpu
