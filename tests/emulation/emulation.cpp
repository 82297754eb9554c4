#include <algorithm>
#include <condition_variable>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <ucontext.h>

#include "cuda_runtime.h"

thread_local dim3 threadIdx, blockIdx, blockDim, gridDim;

namespace emulation {
namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "CUDA emulation: %s\n", what);
  std::abort();
}

thread_local cudaError_t lastError = cudaSuccess;

cudaError_t failed(cudaError_t error) {
  if (error != cudaSuccess) lastError = error;
  return error;
}

/// The device's memory: one range of addresses that only kernels and copies may touch. Around every buffer
/// lies a margin whose contents are checked when it is released.
class Memory {
 public:
  static Memory& instance() {
    static auto* memory = new Memory;  // never destroyed: a process may end from inside a computation
    return *memory;
  }

  void* allocate(std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t size = (bytes + kAlignment - 1) / kAlignment * kAlignment + 2 * kMargin;
    std::size_t start = 0;
    for (const auto& buffer : buffers_) {  // the first gap that is wide enough
      if (buffer.first - start >= size) break;
      start = buffer.first + buffer.second.size;
    }
    if (bytes == 0 || start + size > kBytes) return nullptr;
    const Opened opened(*this, start + size);
    std::memset(base_ + start, kFill, size);
    buffers_[start] = {size, bytes};
    return base_ + start + kMargin;
  }

  bool release(void* memory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found =
        buffers_.find(static_cast<std::size_t>(static_cast<unsigned char*>(memory) - base_) - kMargin);
    if (found == buffers_.end()) return false;
    const Opened opened(*this, 0);
    const std::size_t start = found->first, bytes = found->second.bytes;
    check(start, kMargin);
    check(start + kMargin + bytes, found->second.size - kMargin - bytes);
    std::memset(base_ + start, kFill, found->second.size);
    buffers_.erase(found);
    return true;
  }

  /// Whether this is an address of the device.
  bool holds(const void* memory) const {
    const auto* address = static_cast<const unsigned char*>(memory);
    return address >= base_ && address < base_ + kBytes;
  }

  /// While one of these exists, device memory can be read and written.
  class Opened {
   public:
    explicit Opened(Memory& memory, std::size_t atLeast = 0) : memory_(memory) {
      const std::lock_guard<std::mutex> lock(memory.openMutex_);
      if (atLeast > memory.used_) memory.used_ = (atLeast + kPage - 1) / kPage * kPage;
      if (memory.opened_++ == 0 || atLeast > 0) protect(PROT_READ | PROT_WRITE);
    }
    ~Opened() {
      const std::lock_guard<std::mutex> lock(memory_.openMutex_);
      if (--memory_.opened_ == 0) protect(PROT_NONE);
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

   private:
    void protect(int rights) {
      if (memory_.used_ > 0 && mprotect(memory_.base_, memory_.used_, rights) != 0) fail("mprotect failed");
    }
    Memory& memory_;
  };

 private:
  static constexpr std::size_t kBytes = std::size_t{8} << 30;
  static constexpr std::size_t kPage = 4096, kAlignment = 256, kMargin = 1024;
  static constexpr int kFill = 0xFF;  // floats: a not-a-number
  struct Buffer {
    std::size_t size, bytes;
  };

  Memory() {
    void* range = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range == MAP_FAILED) fail("no address space for the device's memory");
    base_ = static_cast<unsigned char*>(range);
  }
  void check(std::size_t from, std::size_t bytes) const {
    for (std::size_t i = from; i < from + bytes; ++i) {
      if (base_[i] != kFill) fail("a kernel or a copy wrote beside a buffer");
    }
  }

  std::mutex mutex_, openMutex_;
  unsigned char* base_ = nullptr;
  std::size_t used_ = 0;
  int opened_ = 0;
  std::map<std::size_t, Buffer> buffers_;  // by their start, margins included
};

/// Where all blocks of a cooperative launch meet.
class GridBarrier {
 public:
  explicit GridBarrier(unsigned blocks) : blocks_(blocks) {}
  void meet() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (someLeft_) fail("a block waits for others that have ended");
    const unsigned round = round_;
    if (++arrived_ == blocks_) {
      arrived_ = 0;
      ++round_;
      all_.notify_all();
    } else {
      all_.wait(lock, [&] { return round_ != round; });
    }
  }
  /// A block has ended.
  void leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (arrived_ > 0) fail("a block waits for others that have ended");
    someLeft_ = true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_;
  unsigned blocks_, arrived_ = 0, round_ = 0;
  bool someLeft_ = false;
};

enum class State { Ready, AtBlock, AtWarp, AtGrid, Done };

/// What is kept of a thread of a block while others run.
struct Thread {
  State state;
  std::jmp_buf point;
  unsigned exchanges;
  float offered[2];
};

/// Runs the threads of one block in turns, each until it meets others or ends. Threads that never meet run
/// one after the other on one stack.
class Block {
 public:
  static thread_local Block* current;

  Block(dim3 index, dim3 grid, dim3 block, const std::function<void()>& thread, GridBarrier* barrier,
        bool backwards)
      : thread_(thread), barrier_(barrier), backwards_(backwards), count_(block.x * block.y * block.z) {
    blockIdx = index;
    gridDim = grid;
    blockDim = block;
    static thread_local std::vector<Thread> kept;  // from block to block
    if (kept.size() < count_) kept.resize(count_);
    threads_ = kept.data();
  }

  void run() {
    current = this;
    while (started_ < count_) startOnNewStack();
    while (letGo() < count_) {
      for (unsigned k = 0; k < count_; ++k) {
        if (threads_[inOrder(k)].state == State::Ready) resume(inOrder(k));
      }
    }
    current = nullptr;
    if (barrier_ != nullptr) barrier_->leave();
  }

  void meet(State where) {
    threads_[running_].state = where;
    if (_setjmp(threads_[running_].point) == 0) _longjmp(scheduler_, 1);
  }
  unsigned ownLane() const { return running_ % kWarp; }
  float valueOfLane(float value, unsigned lane) {
    Thread& own = threads_[running_];
    // Two places in turn: a lane may be one exchange ahead of another, no further.
    const unsigned place = own.exchanges++ % 2;
    own.offered[place] = value;
    const unsigned other = lane < kWarp ? running_ - ownLane() + lane : running_;
    meet(State::AtWarp);
    return threads_[other].offered[place];
  }

 private:
  static constexpr unsigned kWarp = 32;
  static constexpr std::size_t kStack = 64 << 10;

  unsigned inOrder(unsigned k) const { return backwards_ ? count_ - 1 - k : k; }

  void enter(unsigned t) {
    running_ = t;
    threadIdx = dim3(t % blockDim.x, t / blockDim.x % blockDim.y, t / blockDim.x / blockDim.y);
  }
  void enterNext() {
    const unsigned t = inOrder(started_++);
    threads_[t].state = State::Ready;
    threads_[t].exchanges = 0;
    enter(t);
  }
  void resume(unsigned t) {
    enter(t);
    if (_setjmp(scheduler_) == 0) _longjmp(threads_[t].point, 1);
  }
  void startOnNewStack() {
    enterNext();
    if (_setjmp(scheduler_) != 0) return;
    static thread_local std::vector<std::unique_ptr<char[]>> stacks;  // from block to block
    if (usedStacks_ == stacks.size()) stacks.emplace_back(new char[kStack]);
    ucontext_t context;
    getcontext(&context);
    context.uc_stack.ss_sp = stacks[usedStacks_++].get();
    context.uc_stack.ss_size = kStack;
    context.uc_link = nullptr;
    makecontext(
        &context, [] { current->live(); }, 0);
    setcontext(&context);
  }
  [[noreturn]] void live() {
    for (;;) {
      thread_();
      threads_[running_].state = State::Done;
      if (started_ == count_) _longjmp(scheduler_, 1);
      enterNext();
    }
  }

  /// Lets threads go on that have met all others they wait for; the number of threads that are done.
  unsigned letGo() {
    unsigned at[5] = {};
    for (unsigned t = 0; t < count_; ++t) ++at[static_cast<int>(threads_[t].state)];
    const auto of = [&at](State state) { return at[static_cast<int>(state)]; };
    if (of(State::AtWarp) > 0) {
      for (unsigned first = 0; first < count_; first += kWarp)
        letGo(first, std::min(count_, first + kWarp), State::AtWarp);
    } else if (of(State::AtBlock) > 0) {
      letGo(0, count_, State::AtBlock);
    } else if (of(State::AtGrid) > 0) {
      if (barrier_ == nullptr) fail("a barrier of the grid in a launch that is not cooperative");
      barrier_->meet();
      letGo(0, count_, State::AtGrid);
    }
    return of(State::Done);
  }
  void letGo(unsigned first, unsigned end, State where) {
    bool any = false, all = true;
    for (unsigned t = first; t < end; ++t) {
      any |= threads_[t].state == where;
      all &= threads_[t].state == where;
    }
    if (!any) return;
    if (!all) fail("threads wait for others that do not come");
    for (unsigned t = first; t < end; ++t) threads_[t].state = State::Ready;
  }

  const std::function<void()>& thread_;
  GridBarrier* barrier_;
  bool backwards_;
  unsigned count_, running_ = 0, started_ = 0;
  std::jmp_buf scheduler_;
  Thread* threads_ = nullptr;
  std::size_t usedStacks_ = 0;
};
thread_local Block* Block::current = nullptr;

}  // namespace

cudaError_t run(dim3 grid, dim3 block, bool together, const std::function<void()>& thread) {
  constexpr unsigned kMostThreads = 1024, kMostRows = 65535;
  const unsigned threads = block.x * block.y * block.z, blocks = grid.x * grid.y * grid.z;
  if (threads == 0 || threads > kMostThreads || blocks == 0 || grid.y > kMostRows || grid.z > kMostRows)
    return failed(cudaErrorInvalidConfiguration);
  if (together && blocks > static_cast<unsigned>(kProcessors * kBlocksPerProcessor))
    return failed(cudaErrorCooperativeLaunchTooLarge);

  static std::minstd_rand order;  // launches come from one thread at a time
  const bool backwards = order() % 2 != 0;
  const Memory::Opened opened(Memory::instance());
  GridBarrier barrier(blocks);
  const auto runBlock = [&](unsigned k) {
    const dim3 index(k % grid.x, k / grid.x % grid.y, k / grid.x / grid.y);
    Block(index, grid, block, thread, together ? &barrier : nullptr, backwards).run();
  };
  if (together && blocks > 1) {
    std::vector<std::thread> side;
    for (unsigned k = 0; k < blocks; ++k) side.emplace_back(runBlock, k);
    for (std::thread& one : side) one.join();
  } else {
    for (unsigned k = 0; k < blocks; ++k) runBlock(backwards ? blocks - 1 - k : k);
  }
  return cudaSuccess;
}

void meetBlock() {
  Block::current->meet(State::AtBlock);
}
void meetGrid() {
  Block::current->meet(State::AtGrid);
}
float valueOfLane(float value, unsigned lane) {
  return Block::current->valueOfLane(value, lane);
}
unsigned ownLane() {
  return Block::current->ownLane();
}
void requireFullMask(unsigned mask) {
  if (mask != 0xffffffffu) fail("a shuffle of a part of a warp");
}

}  // namespace emulation

using emulation::failed;
using emulation::Memory;

cudaError_t cudaMalloc(void** memory, std::size_t bytes) {
  *memory = Memory::instance().allocate(bytes);
  return *memory != nullptr ? cudaSuccess : failed(cudaErrorMemoryAllocation);
}
cudaError_t cudaFree(void* memory) {
  return memory == nullptr || Memory::instance().release(memory) ? cudaSuccess
                                                                 : failed(cudaErrorInvalidValue);
}
cudaError_t cudaMemset(void* memory, int value, std::size_t bytes) {
  if (memory == nullptr) return failed(cudaErrorInvalidValue);
  const Memory::Opened opened(Memory::instance());
  std::memset(memory, value, bytes);
  return cudaSuccess;
}

namespace {

bool fits(const void* to, const void* from, cudaMemcpyKind kind) {
  const Memory& memory = Memory::instance();
  return to != nullptr && from != nullptr && memory.holds(to) == (kind != cudaMemcpyDeviceToHost) &&
         memory.holds(from) == (kind != cudaMemcpyHostToDevice);
}

}  // namespace

cudaError_t cudaMemcpy(void* to, const void* from, std::size_t bytes, cudaMemcpyKind kind) {
  if (!fits(to, from, kind)) return failed(cudaErrorInvalidValue);
  const Memory::Opened opened(Memory::instance());
  std::memmove(to, from, bytes);
  return cudaSuccess;
}
cudaError_t cudaMemcpy2D(void* to, std::size_t toPitch, const void* from, std::size_t fromPitch,
                         std::size_t width, std::size_t height, cudaMemcpyKind kind) {
  if (!fits(to, from, kind) || width > toPitch || width > fromPitch) return failed(cudaErrorInvalidValue);
  const Memory::Opened opened(Memory::instance());
  for (std::size_t row = 0; row < height; ++row) {
    std::memcpy(static_cast<char*>(to) + row * toPitch, static_cast<const char*>(from) + row * fromPitch,
                width);
  }
  return cudaSuccess;
}
cudaError_t cudaDeviceSynchronize() {
  return cudaSuccess;
}
cudaError_t cudaGetLastError() {
  const cudaError_t error = emulation::lastError;
  emulation::lastError = cudaSuccess;
  return error;
}
cudaError_t cudaDriverGetVersion(int* version) {
  *version = 12000;
  return cudaSuccess;
}

const char* cudaGetErrorString(cudaError_t error) {
  static const std::map<int, const char*> texts{
      {cudaSuccess, "no error"},
      {cudaErrorInvalidValue, "invalid argument"},
      {cudaErrorMemoryAllocation, "out of memory"},
      {cudaErrorInvalidConfiguration, "invalid configuration argument"},
      {cudaErrorInvalidDevice, "invalid device ordinal"},
      {cudaErrorCooperativeLaunchTooLarge, "too many blocks in cooperative launch"},
      {719, "unspecified launch failure"}};
  const auto found = texts.find(error);
  return found != texts.end() ? found->second : "unknown error";
}
cudaError_t cudaGetDeviceCount(int* count) {
  *count = 1;
  return cudaSuccess;
}
cudaError_t cudaGetDevice(int* device) {
  *device = 0;
  return cudaSuccess;
}
cudaError_t cudaSetDevice(int device) {
  return device == 0 ? cudaSuccess : cudaErrorInvalidDevice;
}
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device) {
  if (device != 0) return cudaErrorInvalidDevice;
  *properties = {"emulated by the CPU", 0, 0};
  return cudaSuccess;
}
cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attribute, int device) {
  if (device != 0) return cudaErrorInvalidDevice;
  *value = attribute == cudaDevAttrCooperativeLaunch ? 1 : emulation::kProcessors;
  return cudaSuccess;
}
