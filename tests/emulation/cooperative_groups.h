#pragma once

#include "cuda_runtime.h"

namespace cooperative_groups {

struct grid_group {
  static void sync() { emulation::meetGrid(); }
};
inline grid_group this_grid() {
  return {};
}

}  // namespace cooperative_groups
