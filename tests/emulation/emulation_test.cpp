#include "emulation/cooperative_groups.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <vector>

#include "emulation/cuda_runtime.h"

namespace {

constexpr unsigned kThreads = 64;

/// An array on the device; not given back, so that tests may leave it broken.
struct DeviceArray {
  int* data = nullptr;
  std::size_t count;

  explicit DeviceArray(std::size_t n) : count(n) {
    EXPECT_EQ(cudaMalloc(&data, n * sizeof(int)), cudaSuccess);
  }
  std::vector<int> values() const {
    std::vector<int> host(count);
    EXPECT_EQ(cudaMemcpy(host.data(), data, count * sizeof(int), cudaMemcpyDeviceToHost), cudaSuccess);
    return host;
  }
};

template <class... Parameters>
cudaError_t start(unsigned blocks, unsigned threads, void (*kernel)(Parameters...), Parameters... arguments) {
  cudaLaunchConfig_t config{};
  config.gridDim = dim3(blocks);
  config.blockDim = dim3(threads);
  return cudaLaunchKernelEx(&config, kernel, arguments...);
}
cudaError_t startTogether(unsigned blocks, void (*kernel)(int*), int* argument) {
  void* arguments[] = {&argument};
  return cudaLaunchCooperativeKernel(kernel, dim3(blocks), dim3(kThreads), arguments);
}

int index() {
  return static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
}

/// Every thread reads what the opposite one of its block has written.
template <bool kBarrier>
void mirror(int* out) {
  __shared__ int values[kThreads];
  const unsigned t = threadIdx.x;
  values[t] = index();
  if (kBarrier) __syncthreads();
  out[index()] = values[blockDim.x - 1 - t];
  if (kBarrier) __syncthreads();
  values[t] = -1;
}

void writeBehind(int* out) {
  out[index()] = 1;
}
void halfOfTheBlockMeets(int* out) {
  if (threadIdx.x < kThreads / 2) __syncthreads();
  out[index()] = 1;
}
void shuffle(int* out, unsigned mask) {
  const auto own = static_cast<float>(index());
  const float above = __shfl_down_sync(mask, own, 2), third = __shfl_sync(mask, own, 3);
  out[index()] = static_cast<int>(1000 * above + third);
}
/// Every block reads what the first one has written.
void fromTheFirst(int* out) {
  if (blockIdx.x == 0) out[threadIdx.x] = index() + 7;
  cooperative_groups::this_grid().sync();
  if (blockIdx.x != 0) out[index()] = out[threadIdx.x];
}
void firstBlockEndsEarly(int*) {
  if (blockIdx.x != 0) cooperative_groups::this_grid().sync();
}

}  // namespace

TEST(Emulation, ABarrierMakesTheResultRightAndItsAbsenceIsSeen) {
  const DeviceArray out(3 * kThreads);
  bool wrong = false;
  for (int run = 0; run < 20; ++run) {
    ASSERT_EQ(start(3, kThreads, mirror<true>, out.data), cudaSuccess);
    const std::vector<int> values = out.values();
    for (int i = 0; i < 3 * static_cast<int>(kThreads); ++i) {
      const int block = i / static_cast<int>(kThreads);
      ASSERT_EQ(values[static_cast<std::size_t>(i)], (2 * block + 1) * static_cast<int>(kThreads) - 1 - i);
    }
    ASSERT_EQ(start(3, kThreads, mirror<false>, out.data), cudaSuccess);
    wrong = wrong || out.values() != values;
  }
  EXPECT_TRUE(wrong);
}

TEST(Emulation, ShufflesReachTheirLanesAndWantWholeWarps) {
  const DeviceArray out(kThreads);
  ASSERT_EQ(start(1, kThreads, shuffle, out.data, 0xffffffffu), cudaSuccess);
  const std::vector<int> values = out.values();
  for (int i = 0; i < static_cast<int>(kThreads); ++i) {
    const int above = i % 32 < 30 ? i + 2 : i;
    EXPECT_EQ(values[static_cast<std::size_t>(i)], 1000 * above + i / 32 * 32 + 3);
  }
  EXPECT_DEATH(start(1, kThreads, shuffle, out.data, 0xffffu), "part of a warp");
}

TEST(EmulationDeathTest, ThreadsThatDoNotMeetAreReported) {
  const DeviceArray out(kThreads);
  EXPECT_DEATH(start(1, kThreads, halfOfTheBlockMeets, out.data), "do not come");
  EXPECT_DEATH(start(2, kThreads, fromTheFirst, out.data), "not cooperative");
  EXPECT_DEATH(startTogether(2, firstBlockEndsEarly, out.data), "that have ended");
}

TEST(Emulation, BlocksOfACooperativeLaunchMeetAndAreLimited) {
  const DeviceArray out(2 * kThreads);
  ASSERT_EQ(startTogether(2, fromTheFirst, out.data), cudaSuccess);
  std::vector<int> expected(2 * kThreads);
  for (std::size_t i = 0; i < expected.size(); ++i) expected[i] = static_cast<int>(i % kThreads) + 7;
  EXPECT_EQ(out.values(), expected);
  EXPECT_EQ(startTogether(1000, fromTheFirst, out.data), cudaErrorCooperativeLaunchTooLarge);
  EXPECT_EQ(cudaGetLastError(), cudaErrorCooperativeLaunchTooLarge);
  EXPECT_EQ(start(1, 2000, writeBehind, out.data), cudaErrorInvalidConfiguration);
}

TEST(EmulationDeathTest, DeviceMemoryIsNotTheHostsAndItsEndIsWatched) {
  const DeviceArray out(kThreads);
  EXPECT_EXIT(std::printf("%d", *static_cast<volatile int*>(out.data)), testing::KilledBySignal(SIGSEGV), "");
  EXPECT_DEATH(
      {
        start(1, kThreads + 1, writeBehind, out.data);
        cudaFree(out.data);
      },
      "beside a buffer");
  std::vector<int> host(kThreads);
  const std::size_t bytes = host.size() * sizeof(int);
  EXPECT_EQ(cudaMemcpy(host.data(), out.data, bytes, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
  EXPECT_EQ(cudaMemcpy(out.data, host.data(), bytes, cudaMemcpyDeviceToDevice), cudaErrorInvalidValue);
  EXPECT_EQ(cudaFree(host.data()), cudaErrorInvalidValue);
}
