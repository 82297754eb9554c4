// The CPU device's thread team.
#include "device/cpu/team.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "device/child.h"

// Tells the team of as many processors as a test wants, whatever the machine has.
static std::atomic<int> processors{64};
extern "C" int sched_getaffinity(pid_t, std::size_t, cpu_set_t* set) noexcept {
  CPU_ZERO(set);
  for (int i = 0; i < processors; ++i) CPU_SET(i, set);
  return 0;
}

namespace {

using device::cpu::runChunks;

/// How often every chunk of a job ran.
struct Job {
  std::vector<std::atomic<int>> runs;
  std::atomic<bool> over{false};
  std::atomic<int> late{0};

  explicit Job(int chunks) : runs(static_cast<std::size_t>(chunks)) {}
  static void body(const void* opaque, int chunk) {
    auto& job = *const_cast<Job*>(static_cast<const Job*>(opaque));
    if (job.over) ++job.late;
    ++job.runs.at(static_cast<std::size_t>(chunk));
  }
  void run() {
    runChunks(static_cast<int>(runs.size()), &Job::body, this);
    over = true;
  }
  bool eachOnce() const {
    for (const auto& count : runs) {
      if (count != 1) return false;
    }
    return late == 0;
  }
};

}  // namespace

TEST(Team, RunsEveryChunkOnceAndReturnsWhenAllAreDone) {
  // More threads than processors, so that workers are held up anywhere, and very many jobs of changing sizes:
  // a claim that is only almost safe fails about once in half a million.
  for (const int threads : {2, 7, 40}) {
    device::cpu::setTeamSize(threads);
    const int jobs = threads == 40 ? 5000 : 500000;
    int wrong = 0;
    for (int i = 0; i < jobs; ++i) {
      Job job(1 + i * 7 % 29);
      job.run();
      wrong += job.eachOnce() ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0) << threads << " threads";
  }
}

TEST(Team, TakesJobsFromSeveralThreadsAndChangesItsSizeBetweenThem) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 3; ++caller) {
    callers.emplace_back([&wrong, caller] {
      for (int i = 0; i < 3000; ++i) {
        device::cpu::setTeamSize(1 + (i + caller) % 5);
        Job job(1 + i % 13);
        job.run();
        if (!job.eachOnce()) ++wrong;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(wrong, 0);
}

TEST(Team, HasNoMoreThreadsThanProcessorsAtWork) {
  processors = 2;
  device::cpu::setTeamSize(200);
  processors = 64;
  EXPECT_EQ(device::cpu::teamSize(), 200);
  std::mutex mutex;
  std::set<std::thread::id> seen;
  device::cpu::forBandsOf(1, 400, [&](int, int) {
    std::this_thread::sleep_for(std::chrono::microseconds(50));  // so that every thread would get one
    const std::lock_guard<std::mutex> lock(mutex);
    seen.insert(std::this_thread::get_id());
  });
  EXPECT_EQ(seen.size(), 2u);
}

TEST(Team, OfAForkedChildWorksWithoutFurtherThreads) {
  device::cpu::setTeamSize(3);
  EXPECT_EQ(statusOfChild([] {
              pthread_attr_t huge;  // stacks that the address space does not hold
              pthread_attr_init(&huge);
              pthread_attr_setstacksize(&huge, std::size_t{1} << 47);
              pthread_setattr_default_np(&huge);
              Job job(20);
              job.run();
              return job.eachOnce() && device::cpu::teamSize() == 1 ? 0 : 1;
            }),
            0);
}

TEST(Team, SharesRowsOutInBandsThatCoverThePlane) {
  device::cpu::setTeamSize(3);
  for (const int h : {1, 2, 5, 479, 20000}) {
    for (const int w : {1, 700, 20000}) {
      std::vector<std::atomic<int>> rows(static_cast<std::size_t>(h));
      std::atomic<int> bands{0};
      device::cpu::forBands(h, w, [&](int y0, int y1) {
        ++bands;
        for (int y = y0; y < y1; ++y) ++rows[static_cast<std::size_t>(y)];
      });
      for (const auto& row : rows) ASSERT_EQ(row, 1) << h << " x " << w;
      if (static_cast<long>(h) * w < device::cpu::kPixelsForTeam) {
        EXPECT_EQ(bands, 1) << h << " x " << w;
      }
    }
  }
}
