#include "device/cpu/team.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "device/device.h"

namespace device::cpu {
namespace {

int usableProcessors() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

/// A job is posted by writing its fields and then the ticket (generation << 32 | chunks left). A thread
/// claims a chunk by lowering the ticket from the value under which it read the fields: a success proves that
/// a chunk of that job was left, so that its caller still waits and the fields are valid.
class Team {
 public:
  explicit Team(int size) : size_(size) {}

  int size() const { return size_.load(std::memory_order_relaxed); }
  void resize(int size) { size_ = size; }

  void run(int chunks, void (*body)(const void*, int), const void* context) {
    const std::lock_guard<std::mutex> onlyJob(jobMutex_);
    startWorkers();
    body_.store(body, std::memory_order_relaxed);
    context_.store(context, std::memory_order_relaxed);
    done_.store(0, std::memory_order_relaxed);
    const std::uint64_t generation = (ticket_.load(std::memory_order_relaxed) >> 32) + 1;
    {
      const std::lock_guard<std::mutex> lock(sleepMutex_);
      ticket_.store(generation << 32 | static_cast<std::uint64_t>(chunks), std::memory_order_release);
    }
    if (sleepers_.load() > 0) wake_.notify_all();
    work(generation);
    for (int spin = 0; done_.load(std::memory_order_acquire) < chunks; ++spin) pause(spin);
  }

 private:
  static constexpr std::uint64_t kLeft = 0xffffffffu;
  static constexpr int kSpins = 4000;  // about 20 microseconds

  static void pause(int spin) {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
    if (spin > kSpins) sched_yield();
  }

  void startWorkers() {
    for (; started_ < size() - 1; ++started_) {
      std::thread([this, index = started_] { live(index); }).detach();
    }
  }

  /// Claims and runs chunks of job `generation` until none is left.
  void work(std::uint64_t generation) {
    std::uint64_t ticket = ticket_.load(std::memory_order_acquire);
    while (ticket >> 32 == generation && (ticket & kLeft) != 0) {
      const auto body = body_.load(std::memory_order_relaxed);
      const void* context = context_.load(std::memory_order_relaxed);
      if (!ticket_.compare_exchange_weak(ticket, ticket - 1, std::memory_order_acq_rel)) continue;
      body(context, static_cast<int>(ticket & kLeft) - 1);
      done_.fetch_add(1, std::memory_order_acq_rel);
      ticket = ticket_.load(std::memory_order_acquire);
    }
  }

  /// A worker's life: spin a little for the next job, then sleep until one is posted.
  void live(int index) {
    plainFloatMode();
    std::uint64_t seen = 0;
    for (;;) {
      std::uint64_t generation = ticket_.load(std::memory_order_acquire) >> 32;
      for (int spin = 0; generation == seen && spin < kSpins; ++spin) {
        pause(0);
        generation = ticket_.load(std::memory_order_acquire) >> 32;
      }
      if (generation == seen) {
        std::unique_lock<std::mutex> lock(sleepMutex_);
        ++sleepers_;
        wake_.wait(lock, [&] { return ticket_.load(std::memory_order_acquire) >> 32 != seen; });
        --sleepers_;
        continue;
      }
      seen = generation;
      if (index < size() - 1) work(generation);
    }
  }

  std::mutex jobMutex_;
  std::mutex sleepMutex_;
  std::condition_variable wake_;
  std::atomic<int> sleepers_{0};
  std::atomic<int> size_;
  int started_ = 0;

  std::atomic<std::uint64_t> ticket_{0};
  std::atomic<void (*)(const void*, int)> body_{nullptr};
  std::atomic<const void*> context_{nullptr};
  std::atomic<int> done_{0};
};

// Never destroyed: a process may end from inside a job. After a fork the child, which has no workers, gets a
// new one.
Team*& teamPointer() {
  static Team* team = [] {
    pthread_atfork(nullptr, nullptr, [] { teamPointer() = new Team(teamPointer()->size()); });
    return new Team(usableProcessors());
  }();
  return team;
}

}  // namespace

int teamSize() {
  return teamPointer()->size();
}
void setTeamSize(int threads) {
  teamPointer()->resize(threads);
}

void runChunks(int chunks, void (*body)(const void*, int), const void* context) {
  teamPointer()->run(chunks, body, context);
}

int rowsPerChunk(int h, int w) {
  constexpr int kChunksPerThread = 4;
  const int threads = teamSize();
  const long pixels = static_cast<long>(h) * w;
  if (threads == 1 || pixels < kPixelsForTeam) return h;
  const int chunks =
      static_cast<int>(std::min<long>(threads * kChunksPerThread, pixels / (kPixelsForTeam / 4)));
  return std::max(1, (h + chunks - 1) / chunks);
}

}  // namespace device::cpu
