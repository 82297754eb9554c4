#include "device/backend.h"

#include <string>

#include "device/cuda/start.cuh"

namespace device {
namespace {

int chosenDevice = 0;
std::string chosenName;

// An error that this room sets itself, for injected failures; an error of the runtime takes precedence.
Code ownError = kSuccess;

Code allocate(void** memory, std::size_t bytes) {
  return cudaMalloc(memory, bytes);
}
Code release(void* memory) {
  return cudaFree(memory);
}
Code clear(void* memory, std::size_t bytes) {
  return cudaMemset(memory, 0, bytes);
}

Code copyRows(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch, std::size_t width,
              std::size_t rows, Direction direction) {
  const cudaMemcpyKind kind = direction == Direction::ToDevice ? cudaMemcpyHostToDevice
                              : direction == Direction::ToHost ? cudaMemcpyDeviceToHost
                                                               : cudaMemcpyDeviceToDevice;
  if (width > toPitch || width > fromPitch)
    return kInvalidValue;  // for a single row the runtime would not check the pitch
  if (rows == 1) return cudaMemcpy(to, from, width, kind);
  return cudaMemcpy2D(to, toPitch, from, fromPitch, width, rows, kind);
}

Code synchronize() {
  return cudaDeviceSynchronize();
}

Code takeLastError() {
  const Code code = cudaGetLastError();
  const Code own = ownError;
  ownError = kSuccess;
  return code != cudaSuccess ? code : own;
}

void setLastError(Code code) {
  ownError = code;
}
const char* text(Code code) {
  return cudaGetErrorString(static_cast<cudaError_t>(code));
}

/// Rows start on a 128-byte line.
int pitch(int w) {
  return (w + 31) / 32 * 32;
}

std::string describe() {
  return chosenName;
}

__global__ void trialKernel(int* out) {
  *out = 42;
}

/// The runtime calls a driver that is not there insufficient.
const char* reasonText(cudaError_t error) {
  int version = 0;
  const bool noDriver =
      error == cudaErrorInsufficientDriver && cudaDriverGetVersion(&version) == cudaSuccess && version == 0;
  return noDriver ? "there is no NVIDIA driver" : cudaGetErrorString(error);
}

/// Runs a kernel on the current device and reads its result back.
cudaError_t tryDevice() {
  int* out = nullptr;
  int value = 0;
  cudaError_t error = cudaMalloc(&out, sizeof(int));
  if (error != cudaSuccess) return error;
  cuda::start(trialKernel, dim3(1), dim3(1), out);
  error = cudaGetLastError();
  if (error == cudaSuccess) error = cudaMemcpy(&value, out, sizeof(int), cudaMemcpyDeviceToHost);
  const cudaError_t freed = cudaFree(out);
  if (error == cudaSuccess) error = freed;
  if (error == cudaSuccess && value != 42) error = cudaErrorUnknown;
  return error;
}

}  // namespace

int countCudaDevices() {
  int count = 0;
  if (cudaGetDeviceCount(&count) != cudaSuccess) {
    cudaGetLastError();
    return 0;
  }
  return count;
}

std::string describeCudaDevice(int index) {
  cudaDeviceProp properties{};
  if (cudaGetDeviceProperties(&properties, index) != cudaSuccess) {
    cudaGetLastError();
    return "cuda:" + std::to_string(index);
  }
  return "cuda:" + std::to_string(index) + " (" + properties.name + ", compute capability " +
         std::to_string(properties.major) + "." + std::to_string(properties.minor) + ")";
}

bool startCuda(int index, std::string& why) {
  int callers = 0;
  cudaError_t error = cudaGetDevice(&callers);
  const int device = index >= 0 ? index : callers;
  if (error == cudaSuccess) error = cudaSetDevice(device);
  if (error == cudaSuccess) error = tryDevice();
  if (error != cudaSuccess) {
    why = std::string("no working CUDA device: ") + reasonText(error);
    cudaGetLastError();
    return false;
  }
  chosenDevice = device;
  chosenName = describeCudaDevice(device);
  cudaSetDevice(callers);
  return true;
}

int enterCuda() {
  int callers = 0;
  cudaGetDevice(&callers);
  if (callers != chosenDevice) cudaSetDevice(chosenDevice);
  return callers;
}

void leaveCuda(int callersDevice) {
  if (callersDevice != chosenDevice) cudaSetDevice(callersDevice);
}

const Backend& cudaBackend() {
  static const Backend backend{"cuda",        allocate,     release, clear, copyRows, synchronize,
                               takeLastError, setLastError, text,    pitch, describe, false};
  return backend;
}

}  // namespace device
