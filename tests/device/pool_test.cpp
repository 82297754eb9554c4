#include <gtest/gtest.h>
#include <tarvo/NDevice.h>

#include <atomic>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "device/child.h"
#include "device/memory.h"

namespace {

using device::Buffer;

/// Starts with an empty pool; not for builds whose pool keeps nothing.
class Pool : public testing::Test {
 protected:
  void SetUp() override {
#ifdef TARVO_POOL_PASSES_THROUGH
    GTEST_SKIP() << "this pool keeps nothing";
#endif
    NDevice::trim();
  }
  static std::size_t kept() {
    return NDevice::memoryUse().kept / sizeof(float);
  }

  /// Buffers of these sizes, made and given to the pool; where they lie.
  static std::vector<float*> keepBuffers(const std::vector<std::size_t>& sizes) {
    std::vector<Buffer> buffers(sizes.size());
    std::vector<float*> memory;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      EXPECT_EQ(buffers[i].allocate(sizes[i]), device::kSuccess);
      memory.push_back(buffers[i].get());
    }
    for (Buffer& buffer : buffers) EXPECT_EQ(buffer.release(), device::kSuccess);
    return memory;
  }
};

}  // namespace

TEST_F(Pool, TakesPiecesOfTheSmallestStretchAndJoinsThemAgain) {
  const std::vector<float*> memory = keepBuffers({1024, 3072, 2048});
  EXPECT_EQ(kept(), 6144u);
  Buffer first, second, third;
  ASSERT_EQ(first.allocate(1088), device::kSuccess);
  EXPECT_EQ(first.get(), memory[2]);
  ASSERT_EQ(second.allocate(900), device::kSuccess);
  EXPECT_EQ(second.get(), memory[2] + 1088);
  ASSERT_EQ(third.allocate(1), device::kSuccess);
  EXPECT_EQ(third.get(), memory[0]);
  EXPECT_EQ(first.release(), device::kSuccess);
  EXPECT_EQ(second.release(), device::kSuccess);
  ASSERT_EQ(first.allocate(2048), device::kSuccess);
  EXPECT_EQ(first.get(), memory[2]);
  EXPECT_THROW(first.detach(), std::logic_error);
}

TEST_F(Pool, ServesStagesOfAReservationFromOneSlab) {
  constexpr std::size_t kFloats = 1 << 20;
  ASSERT_EQ(device::reserve(3 * kFloats), device::kSuccess);
  const std::size_t reserved = kept();
  for (const std::vector<std::size_t>& stage :
       {std::vector<std::size_t>{kFloats, kFloats, kFloats}, {2 * kFloats, kFloats / 2}, {3 * kFloats}}) {
    keepBuffers(stage);
    EXPECT_EQ(kept(), reserved);
  }
  EXPECT_EQ(device::reserve(3 * kFloats), device::kSuccess);
  EXPECT_EQ(kept(), reserved);
}

TEST_F(Pool, GivesTheLargestSlabsBackForANewOneAndAllWhereMemoryEnds) {
  keepBuffers({1024, 3072, 2048});
  Buffer larger;
  ASSERT_EQ(larger.allocate(4096), device::kSuccess);
  EXPECT_EQ(kept(), 1024u);
  Buffer huge;
  EXPECT_EQ(huge.allocate(std::numeric_limits<std::size_t>::max() / 16), device::kOutOfMemory);
  EXPECT_EQ(kept(), 0u);
  device::takeLastError();
}

TEST_F(Pool, KeepsNothingOfADeviceThatIsNoLongerChosen) {
  const std::string before = NDevice::kind();
  NDevice::select("cpu");
  keepBuffers({1000});
  Buffer inUse, fresh;
  ASSERT_EQ(inUse.allocate(10), device::kSuccess);
  keepBuffers({2000});
  try {
    NDevice::select("cuda");
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << error.what();
  }
  EXPECT_EQ(fresh.allocate(1024), device::kSuccess);
  EXPECT_EQ(inUse.release(), device::kSuccess);
  EXPECT_EQ(kept(), 0u);
  NDevice::select(before);
}

TEST_F(Pool, LeavesDetachedMemoryToItsOwnerInAnyThread) {
  const std::size_t before = NDevice::memoryUse().inUse;
  Buffer buffer;
  ASSERT_EQ(buffer.allocateWhole(700), device::kSuccess);
  float* memory = buffer.detach();
  std::thread([memory] { NDevice::release(memory); }).join();
  EXPECT_EQ(NDevice::memoryUse().inUse, before);
  EXPECT_EQ(kept(), 0u);
  memory = NDevice::allocate(700);
  EXPECT_EQ(Buffer::adopt(memory).release(), device::kSuccess);
  EXPECT_EQ(kept(), 700u);
  ASSERT_EQ(buffer.allocateWhole(350), device::kSuccess);
  EXPECT_EQ(buffer.get(), memory);
  float foreign = 0.0f;
  EXPECT_EQ(device::release(&foreign), device::kInvalidValue);
  EXPECT_EQ(device::release(memory + 1), device::kInvalidValue);
}

TEST(PoolFork, ServesChildrenForkedWhileAnotherThreadIsInside) {
  if (!kForksBesideThreads) GTEST_SKIP() << "the sanitizer cannot fork beside threads that allocate";
  if (NDevice::kind() != "cpu") GTEST_SKIP() << "only the CPU device works in a forked child";
  const auto takeAndRelease = [] {
    Buffer buffer;
    return buffer.allocate(100) == device::kSuccess && buffer.release() == device::kSuccess ? 0 : 1;
  };
  std::atomic<bool> started{false}, stop{false};
  std::thread worker([&] {
    while (!stop) {
      takeAndRelease();
      started = true;
    }
  });
  while (!started) std::this_thread::yield();  // a sanitizer may hold locks of its own while a thread starts
  for (int i = 0; i < 50 && !HasFailure(); ++i) EXPECT_EQ(statusOfChild(takeAndRelease), 0) << i;
  stop = true;
  worker.join();
}
