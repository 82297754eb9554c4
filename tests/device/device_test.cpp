#include <tarvo/tarvo.h>

#include <atomic>
#include <thread>

#include "device/child.h"
#include "support/test.h"

namespace {

/// What `function` throws as an Error, or "nothing".
template <class Error, class Function>
std::string thrownBy(const Function& function) {
  try {
    function();
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing";
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

CTensor<float> smallFlow() {
  CTensor<float> first = tensorOf(render(120, 130, 0, 0)), second = tensorOf(render(120, 130, 1, 0)), flow;
  runFlowGPU(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.7f, 2, 4);
  return flow;
}

}  // namespace

TEST(Device, RefusesNamesItDoesNotKnowAndKeepsItsChoice) {
  const std::string before = NDevice::current();
  for (const char* name :
       {"", "gpu", "CPU", "cuda:", "cuda:x", "cuda:-1", "cuda:1 ", "cuda:99999", "cudax"}) {
    const std::string message = thrownBy<std::invalid_argument>([&] { NDevice::select(name); });
    EXPECT_TRUE(contains(message, std::string("\"") + name + "\"")) << message;
  }
  // A device that is not there is another error, and names its reason.
  EXPECT_TRUE(
      contains(thrownBy<std::runtime_error>([] { NDevice::select("cuda:999"); }), "cannot be used: "));
  EXPECT_EQ(NDevice::current(), before);
}

TEST(Device, TellsWhatRunsAndWhy) {
  const std::string kind = NDevice::kind();
  EXPECT_TRUE(kind == "cpu" || kind == "cuda") << kind;
  EXPECT_EQ(NDevice::current().compare(0, kind.size(), kind), 0) << NDevice::current();
  EXPECT_TRUE(contains(NDevice::current(), ": ")) << NDevice::current();
  const std::vector<std::string> devices = NDevice::devices();
  ASSERT_GE(devices.size(), 1u);
  EXPECT_TRUE(contains(devices[0], "cpu (")) << devices[0];
  EXPECT_TRUE(contains(devices[0], NDevice::instructionSet())) << devices[0];
}

TEST(Device, LimitsTheNumberOfThreads) {
  const KeepThreads keep;
  for (const int n : {0, -1, 1025, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    const int before = NDevice::threads();
    const std::string message = thrownBy<std::invalid_argument>([n] { NDevice::threads(n); });
    EXPECT_TRUE(contains(message, std::to_string(n))) << message;
    EXPECT_EQ(NDevice::threads(), before);
  }
  NDevice::threads(2);
  EXPECT_EQ(NDevice::threads(), 2);
}

TEST(Device, MemoryRefusesNonsenseAndFailsWithNull) {
  EXPECT_EQ(NDevice::allocate(0), nullptr);
  EXPECT_EQ(NDevice::allocate(std::numeric_limits<std::size_t>::max()), nullptr);
#ifndef TARVO_POOL_PASSES_THROUGH  // a sanitizer ends the process on such a request
  EXPECT_EQ(NDevice::allocate(std::numeric_limits<std::size_t>::max() / 8), nullptr);
#endif
  int pitch = 0;
  for (const Size size : {Size{0, 5}, Size{5, 0}, Size{-1, 5}, Size{5, -1}}) {
    EXPECT_TRUE(
        contains(thrownBy<std::invalid_argument>([&] { NDevice::allocatePlane(size.h, size.w, pitch); }),
                 std::to_string(size.h)));
  }
  EXPECT_THROW(NDevice::allocatePlane(2, 2, pitch, 0), std::invalid_argument);
  EXPECT_THROW(NDevice::allocatePlane(1 << 20, 2, pitch, 1 << 20), std::invalid_argument);
  NDevice::release(nullptr);
}

TEST(Device, PlanesHoldWhatIsUploadedAtAPitchThatDependsOnTheWidth) {
  for (const int w : {1, 7, 8, 16, 17, 640, 1000}) {
    int pitch = 0, other = 0;
    float* plane = NDevice::allocatePlane(3, w, pitch, 2);
    float* second = NDevice::allocatePlane(50, w, other);
    ASSERT_NE(plane, nullptr);
    EXPECT_GE(pitch, w);
    EXPECT_EQ(pitch, other);
    const Planes host = randomPlanes(3, w, 2, 1);
    NDevice::upload(plane, host.data(), 3, w, pitch, 2);
    Planes back(3, w, 2);
    NDevice::download(back.data(), plane, 3, w, pitch, 2);
    EXPECT_TRUE(exact(back, host));
    NDevice::release(plane);
    NDevice::release(second);
  }
  EXPECT_THROW(NDevice::upload(nullptr, nullptr, 1, 5, 4), std::runtime_error);  // a pitch below the width
}

TEST(Device, MemoryUseCountsWhatIsInUseAndTrimGivesTheRestBack) {
  const Silence silence;
  const std::size_t before = NDevice::memoryUse().inUse;
  float* memory = NDevice::allocate(1000);
  EXPECT_GE(NDevice::memoryUse().inUse, before + 4000);
  NDevice::release(memory);
  EXPECT_EQ(NDevice::memoryUse().inUse, before);
  smallFlow();
  EXPECT_EQ(NDevice::memoryUse().inUse, before);
  NDevice::trim();
  EXPECT_EQ(NDevice::memoryUse().kept, 0u);
  EXPECT_EQ(NDevice::memoryUse().inUse, before);
}

TEST(Device, CountsCallsAndFailsTheOneAskedFor) {
  NDevice::failCall(0);
  float* memory = NDevice::allocate(10);
  const Planes host(1, 10);
  NDevice::upload(memory, host.data(), 1, 10, 10);
  EXPECT_EQ(NDevice::failCall(2), 2);
  NDevice::upload(memory, host.data(), 1, 10, 10);
  EXPECT_THROW(NDevice::upload(memory, host.data(), 1, 10, 10), std::runtime_error);
  NDevice::upload(memory, host.data(), 1, 10, 10);  // once only
  NDevice::failCall(1);
  EXPECT_EQ(NDevice::allocate(10), nullptr);
  EXPECT_EQ(NDevice::failCall(0), 1);
  NDevice::release(memory);
}

TEST(Device, ComputesInAForkedChild) {
  const Silence silence;
  const KeepThreads keep;
  NDevice::threads(3);
  const Planes expected = planesOf(smallFlow());
  const std::string kind = NDevice::kind();
  EXPECT_EQ(statusOfChild([&] {
              if (kind == "cuda") {  // the CUDA runtime does not survive a fork
                if (!contains(thrownBy<std::runtime_error>(smallFlow), "fork")) return 2;
                NDevice::select("cpu");
                smallFlow();
                return 0;
              }
              return exact(planesOf(smallFlow()), expected) ? 0 : 1;
            }),
            0);
}

TEST(Device, ComputesInChildrenForkedWhileAnotherThreadComputes) {
  if (!kForksBesideThreads) GTEST_SKIP() << "the sanitizer cannot fork beside threads that allocate";
  if (NDevice::kind() != "cpu") GTEST_SKIP() << "only the CPU device works in a forked child";
  const Silence silence;
  const Planes expected = planesOf(smallFlow());
  std::atomic<bool> stop{false};
  std::thread worker([&stop] {
    while (!stop) smallFlow();
  });
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(statusOfChild([&] { return exact(planesOf(smallFlow()), expected) ? 0 : 1; }), 0) << i;
  }
  stop = true;
  worker.join();
}
