#pragma once

#include <cuda_runtime.h>

namespace device::cuda {

/// Launches a kernel on the default stream, as kernel<<<grid, block>>>(arguments...) does. An error shows at
/// the next launch check.
template <class... Parameters, class... Arguments>
void start(void (*kernel)(Parameters...), dim3 grid, dim3 block, const Arguments&... arguments) {
  cudaLaunchConfig_t config{};
  config.gridDim = grid;
  config.blockDim = block;
  cudaLaunchKernelEx(&config, kernel, arguments...);
}

}  // namespace device::cuda
