#include "device/cpu/team.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "device/device.h"
#include "device/watch.h"

namespace device::cpu {
namespace {

int usableProcessors() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

/// The chunks of a job are cut into ranges, one for each thread, but no more than kMostRanges. A thread
/// claims the chunks of its own range first, then what is left of the others. So in successive jobs over the
/// same rows it meets rows that its caches still hold.
///
/// A job is posted by writing its fields, then the ticket of every range (generation << 32 | chunks left),
/// then the generation. A thread claims a chunk by lowering a ticket from the value under which it read the
/// fields. If that succeeds, a chunk of that job was left: its caller still waits, and the fields are valid.
class Team {
 public:
  explicit Team(int size) : size_(size), active_(std::min(size, usableProcessors())) {}

  int size() const { return size_.load(std::memory_order_relaxed); }
  void resize(int size) {
    size_ = size;
    active_ = std::min(size, usableProcessors());
  }
  /// Threads that take part: those beyond the processors would only hold the others up.
  int active() const { return active_.load(std::memory_order_relaxed); }

  void run(int chunks, void (*body)(const void*, int), const void* context) {
    const std::lock_guard<std::mutex> onlyJob(jobMutex_);
    startWorkers();
    body_.store(body, std::memory_order_relaxed);
    context_.store(context, std::memory_order_relaxed);
    done_.store(0, std::memory_order_relaxed);
    const int ranges = std::min(active(), kMostRanges);
    chunks_.store(chunks, std::memory_order_relaxed);
    ranges_.store(ranges, std::memory_order_relaxed);
    const std::uint64_t generation = (generation_.load(std::memory_order_relaxed) + 1) & kLeft;
    for (int range = 0; range < ranges; ++range) {
      const int count = firstOf(range + 1, chunks, ranges) - firstOf(range, chunks, ranges);
      tickets_[range].value.store(generation << 32 | static_cast<std::uint64_t>(count),
                                  std::memory_order_release);
    }
    {
      const std::lock_guard<std::mutex> lock(sleepMutex_);
      generation_.store(generation, std::memory_order_release);
    }
    if (sleepers_.load() > 0) wake_.notify_all();
    work(generation, 0);
    for (int spin = 0; done_.load(std::memory_order_acquire) < chunks; ++spin) pause(spin);
    if (dropped_.exchange(false, std::memory_order_relaxed)) {
      std::rethrow_exception(std::exchange(thrown_, nullptr));
    }
  }

 private:
  static constexpr std::uint64_t kLeft = 0xffffffffu;
  static constexpr int kSpins = 4000;  // about 20 microseconds
  static constexpr int kMostRanges = 16;

  static void pause(int spin) {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
    if (spin > kSpins) sched_yield();
  }

  /// Where the system gives no further thread, those that there are do the work.
  void startWorkers() {
    try {
      for (; started_ < active() - 1; ++started_) {
        std::thread([this, index = started_] { live(index); }).detach();
      }
    } catch (const std::exception&) {
      resize(started_ + 1);
    }
  }

  /// First chunk of a range.
  static int firstOf(int range, int chunks, int ranges) {
    return static_cast<int>(static_cast<long>(chunks) * range / ranges);
  }

  /// Claims and runs chunks of job `generation` until none is left, those of `own` and the next ranges first.
  void work(std::uint64_t generation, int own) {
    const int ranges = ranges_.load(std::memory_order_relaxed);
    for (int k = 0; k < ranges; ++k) workRange(generation, (own + k) % ranges);
  }

  void workRange(std::uint64_t generation, int range) {
    std::atomic<std::uint64_t>& ticket = tickets_[range].value;
    std::uint64_t value = ticket.load(std::memory_order_acquire);
    while (value >> 32 == generation && (value & kLeft) != 0) {
      const auto body = body_.load(std::memory_order_relaxed);
      const void* context = context_.load(std::memory_order_relaxed);
      const int end = firstOf(range + 1, chunks_.load(std::memory_order_relaxed),
                              ranges_.load(std::memory_order_relaxed));
      if (!ticket.compare_exchange_weak(value, value - 1, std::memory_order_acq_rel)) continue;
      if (!dropped_.load(std::memory_order_relaxed)) body(context, end - static_cast<int>(value & kLeft));
      if (polled()) pollCaller();
      done_.fetch_add(1, std::memory_order_acq_rel);
      value = ticket.load(std::memory_order_acquire);
    }
  }

  /// On the caller's thread; the workers have nothing to poll.
  void pollCaller() {
    if (dropped_.load(std::memory_order_relaxed)) return;
    try {
      poll();
    } catch (...) {
      thrown_ = std::current_exception();
      dropped_ = true;
    }
  }

  /// A worker's life: spin a little for the next job, then sleep until one is posted.
  void live(int index) {
    plainFloatMode();
    std::uint64_t seen = 0;
    for (;;) {
      std::uint64_t generation = generation_.load(std::memory_order_acquire);
      for (int spin = 0; generation == seen && spin < kSpins; ++spin) {
        pause(0);
        generation = generation_.load(std::memory_order_acquire);
      }
      if (generation == seen) {
        std::unique_lock<std::mutex> lock(sleepMutex_);
        ++sleepers_;
        wake_.wait(lock, [&] { return generation_.load(std::memory_order_acquire) != seen; });
        --sleepers_;
        continue;
      }
      seen = generation;
      if (index < active() - 1) work(generation, index + 1);
    }
  }

  std::mutex jobMutex_;
  std::mutex sleepMutex_;
  std::condition_variable wake_;
  std::atomic<int> sleepers_{0};
  std::atomic<int> size_, active_;
  int started_ = 0;

  struct alignas(64) Ticket {  // a cache line of its own
    std::atomic<std::uint64_t> value{0};
  };
  Ticket tickets_[kMostRanges];
  std::atomic<std::uint64_t> generation_{0};
  std::atomic<void (*)(const void*, int)> body_{nullptr};
  std::atomic<const void*> context_{nullptr};
  std::atomic<int> chunks_{0}, ranges_{1};
  std::atomic<int> done_{0};
  std::exception_ptr thrown_;         // by the caller's poll
  std::atomic<bool> dropped_{false};  // the chunks left are claimed, but not run
};

// Never destroyed: a process may end from inside a job. After a fork the child has no workers and gets a new
// team.
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
  constexpr long kMostPixels = 1L << 21;  // between two polls of the caller
  const int threads = teamSize();
  const long pixels = static_cast<long>(h) * w;
  if (pixels < kPixelsForTeam) return h;
  const int most = static_cast<int>(std::clamp<long>(kMostPixels / w, 1, h));
  if (threads == 1) return most;
  const int chunks =
      static_cast<int>(std::min<long>(threads * kChunksPerThread, pixels / (kPixelsForTeam / 4)));
  return std::clamp((h + chunks - 1) / chunks, 1, most);
}

}  // namespace device::cpu
