#pragma once

// What the library uses of CUDA, run by the CPU: the same kernels, launches and copies, so that the tests of
// the CUDA device run on machines without one. Found in place of the toolkit's header where TARVO_CUDA is
// EMULATED; the units that launch kernels are then compiled by the C++ compiler, with __CUDACC__ defined.
//
// What it shows: launch shapes, indices, shared memory, barriers, shuffles, the order of launches and copies,
// writes just beside a buffer, and every access of the host to device memory, which ends the program. Threads
// of a block take turns at its barriers, forwards or backwards as a random number says; blocks of a
// cooperative launch run at the same time. New device memory holds a not-a-number everywhere.
//
// What it cannot show: what nvcc makes of the code; times; kernels that read the host's memory; shared memory
// that is read before it is written; races between blocks of an ordinary launch, which run one after the
// other, and those that need threads of one block to run at the same instant.

#include <cmath>
#include <cstddef>
#include <functional>
#include <tuple>
#include <utility>

#define __host__
#define __device__
#define __global__
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(...)
// Blocks of a launch run one after the other in a thread of the system, or each in one of its own.
#define __shared__ static thread_local

enum cudaError_t {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorInvalidConfiguration = 9,
  cudaErrorInsufficientDriver = 35,
  cudaErrorInvalidDevice = 101,
  cudaErrorCooperativeLaunchTooLarge = 720,
  cudaErrorUnknown = 999
};
enum cudaMemcpyKind { cudaMemcpyHostToDevice = 1, cudaMemcpyDeviceToHost = 2, cudaMemcpyDeviceToDevice = 3 };
enum cudaDeviceAttr { cudaDevAttrMultiProcessorCount = 16, cudaDevAttrCooperativeLaunch = 95 };
using cudaStream_t = struct CUstream_st*;

struct dim3 {
  unsigned x, y, z;
  dim3(unsigned theX = 1, unsigned theY = 1, unsigned theZ = 1) : x(theX), y(theY), z(theZ) {}
};
struct cudaDeviceProp {
  char name[256];
  int major, minor;
};
struct cudaLaunchConfig_t {
  dim3 gridDim, blockDim;
  std::size_t dynamicSmemBytes;
  cudaStream_t stream;
  void* attrs;
  unsigned numAttrs;
};

extern thread_local dim3 threadIdx, blockIdx, blockDim, gridDim;

namespace emulation {

/// Calls `thread` as every thread of the launch; together: blocks run at the same time and may meet at a
/// barrier of the grid.
cudaError_t run(dim3 grid, dim3 block, bool together, const std::function<void()>& thread);

/// All threads of the block, of the grid.
void meetBlock();
void meetGrid();
/// The value of lane `lane` of the warp, or the own one where that is no lane; all 32 lanes meet.
float valueOfLane(float value, unsigned lane);
unsigned ownLane();
void requireFullMask(unsigned mask);

constexpr int kProcessors = 2;
constexpr int kBlocksPerProcessor = 1;

}  // namespace emulation

inline void __syncthreads() {
  emulation::meetBlock();
}
inline float __shfl_down_sync(unsigned mask, float value, unsigned delta) {
  emulation::requireFullMask(mask);
  return emulation::valueOfLane(value, emulation::ownLane() + delta);
}
inline float __shfl_sync(unsigned mask, float value, int lane) {
  emulation::requireFullMask(mask);
  return emulation::valueOfLane(value, static_cast<unsigned>(lane) % 32);
}
inline int atomicMin(int* address, int value) {
  const int before = *address;
  if (value < before) *address = value;
  return before;
}

cudaError_t cudaMalloc(void** memory, std::size_t bytes);
template <class T>
cudaError_t cudaMalloc(T** memory, std::size_t bytes) {
  return cudaMalloc(reinterpret_cast<void**>(memory), bytes);
}
cudaError_t cudaFree(void* memory);
cudaError_t cudaMemset(void* memory, int value, std::size_t bytes);
cudaError_t cudaMemcpy(void* to, const void* from, std::size_t bytes, cudaMemcpyKind kind);
cudaError_t cudaMemcpy2D(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch,
                         std::size_t width, std::size_t height, cudaMemcpyKind kind);
cudaError_t cudaDeviceSynchronize();
cudaError_t cudaGetLastError();
const char* cudaGetErrorString(cudaError_t error);
cudaError_t cudaDriverGetVersion(int* version);
cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device);
cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attribute, int device);

template <class Kernel>
cudaError_t cudaOccupancyMaxActiveBlocksPerMultiprocessor(int* blocks, Kernel /*kernel*/, int /*threads*/,
                                                          std::size_t /*dynamicSharedBytes*/) {
  *blocks = emulation::kBlocksPerProcessor;
  return cudaSuccess;
}

template <class... Parameters, class... Arguments>
cudaError_t cudaLaunchKernelEx(const cudaLaunchConfig_t* config, void (*kernel)(Parameters...),
                               Arguments&&... arguments) {
  const std::tuple<Parameters...> copies(std::forward<Arguments>(arguments)...);
  return emulation::run(config->gridDim, config->blockDim, false, [&] { std::apply(kernel, copies); });
}

template <class Parameter>
cudaError_t cudaLaunchCooperativeKernel(void (*kernel)(Parameter), dim3 grid, dim3 block, void** arguments,
                                        std::size_t /*dynamicSharedBytes*/ = 0,
                                        cudaStream_t /*stream*/ = nullptr) {
  const Parameter copy = *static_cast<const Parameter*>(arguments[0]);
  return emulation::run(grid, block, true, [&] { kernel(copy); });
}
