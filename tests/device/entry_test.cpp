#include <gtest/gtest.h>
#include <tarvo/NDevice.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include "device/child.h"
#include "device/device.h"

using device::Entry;

TEST(Entry, IsForOneThreadAtATimeThatMayEnterAgain) {
  std::atomic<int> inside{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        const Entry outer;
        { const Entry inner; }
        if (++inside != 1) ++wrong;
        std::this_thread::yield();
        --inside;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST(Entry, IsRefusedToCallbacksAndFreeAfterThem) {
  {
    const Entry entry;
    const device::Callback callback;
    EXPECT_THROW(Entry(), std::logic_error);
    { const device::Callback nested; }
    EXPECT_THROW(Entry(), std::logic_error);
  }
  std::thread([] { const Entry other; }).join();
  const Entry again;
}

TEST(Entry, LeftByAnExceptionRestoresTheFloatModeAndForgetsTheLastError) {
#if defined(__x86_64__)
  const unsigned before = _mm_getcsr(), odd = before | 0x8040u | 0x4000u;  // flushing, rounding upwards
  _mm_setcsr(odd);
#endif
  try {
    const Entry entry;
#if defined(__x86_64__)
    EXPECT_EQ(_mm_getcsr() & 0xE040u, 0u);
#endif
    NDevice::failCall(1);
    device::synchronize();
    throw std::runtime_error("while computing");
  } catch (const std::runtime_error&) {
  }
  NDevice::failCall(0);
  EXPECT_EQ(device::takeLastError(), device::kSuccess);
#if defined(__x86_64__)
  EXPECT_EQ(_mm_getcsr() & 0xE040u, odd & 0xE040u);
  _mm_setcsr(before);
#endif
  std::thread([] { const Entry other; }).join();
}

TEST(Entry, IsFreeInAChildForkedWhileAnotherThreadHoldsIt) {
  if (NDevice::kind() != "cpu") GTEST_SKIP() << "only the CPU device works in a forked child";
  const std::string current = NDevice::current();
  std::promise<void> entered, leave;
  std::thread holder([&] {
    const Entry entry;
    entered.set_value();
    leave.get_future().wait();
  });
  entered.get_future().wait();
  EXPECT_EQ(statusOfChild([&] {
              const Entry entry;
              return NDevice::current() == current ? 0 : 1;
            }),
            0);
  leave.set_value();
  holder.join();
}
