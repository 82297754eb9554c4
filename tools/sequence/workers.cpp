#include "sequence/workers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace tool {

namespace {

constexpr int kDied = 3;  // exit status of a process whose failure is in its last line

long pairsIn(const std::vector<PairRange>& ranges) {
  long sum = 0;
  for (const PairRange& range : ranges) sum += range.last - range.first;
  return sum;
}

/// The ranges in `jobs` blocks of about as many pairs, of which none is empty.
std::vector<std::vector<PairRange>> split(const std::vector<PairRange>& ranges, int jobs) {
  const long all = pairsIn(ranges);
  std::vector<std::vector<PairRange>> blocks;
  long done = 0;
  for (PairRange range : ranges) {
    while (range.first < range.last) {
      const long block = static_cast<long>(blocks.size());
      const long end = all * block / jobs;  // pairs in the blocks so far
      if (done == end) {
        blocks.emplace_back();
        continue;
      }
      const long take = std::min(range.last - range.first, end - done);
      blocks.back().push_back({range.first, range.first + take});
      range.first += take;
      done += take;
    }
  }
  blocks.erase(std::remove_if(blocks.begin(), blocks.end(), [](const auto& block) { return block.empty(); }),
               blocks.end());
  return blocks;
}

std::string toLine(const PairReport& report) {
  return lineOf({{"state", static_cast<int>(report.state)},
                 {"pair", report.pair},
                 {"record", report.record},
                 {"seconds", report.seconds}});
}

PairReport fromLine(const Json& json) {
  return {static_cast<PairReport::State>(json.at("state").get<int>()), json.at("pair").get<long>(),
          json.at("record"), json.at("seconds").get<double>()};
}

void writeAll(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) _exit(kDied);  // nobody listens
    done += static_cast<std::size_t>(count);
  }
}

/// What a child does; it never returns.
[[noreturn]] void work(int pipe, const std::vector<PairRange>& ranges, const DoPairs& doPairs, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(kDied);  // it ended before the line above
  try {
    doPairs(ranges, [pipe](const PairReport& report) { writeAll(pipe, toLine(report)); });
    _exit(0);
  } catch (const std::exception& error) {
    writeAll(pipe, lineOf({{"fatal", error.what()}}));
  } catch (...) {  // asked to end
  }
  _exit(kDied);
}

/// One process and the pairs that it has yet to report.
class Worker {
 public:
  Worker(std::vector<PairRange> ranges, const DoPairs& doPairs) : left_(ranges.begin(), ranges.end()) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ == 0) {
      close(ends[0]);
      work(ends[1], ranges, doPairs, parent);
    }
    close(ends[1]);
    pipe_ = ends[0];
    if (process_ < 0) {
      close(pipe_);
      throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
    }
  }
  ~Worker() {
    if (process_ > 0) {
      kill(process_, SIGTERM);
      waitpid(process_, nullptr, 0);
    }
    close(pipe_);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  int pipe() const { return pipe_; }
  bool idle() const { return left_.empty(); }
  std::vector<PairRange> left() const { return {left_.begin(), left_.end()}; }

  /// Reports what has come. False at the end of the process.
  bool read(const std::function<void(const PairReport&)>& report) {
    char bytes[4096];
    const ssize_t count = ::read(pipe_, bytes, sizeof bytes);
    if (count < 0 && errno == EINTR) return true;
    if (count <= 0) return false;
    text_.append(bytes, static_cast<std::size_t>(count));
    for (std::size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
      const Json json = Json::parse(text_.substr(0, end));
      text_.erase(0, end + 1);
      if (json.contains("fatal")) throw std::runtime_error(json["fatal"].get<std::string>());
      take();
      report(fromLine(json));
    }
    return true;
  }

  /// The first pair that is left, which is none any more.
  long take() {
    const long pair = left_.front().first++;
    if (left_.front().first == left_.front().last) left_.pop_front();
    return pair;
  }

  /// Waits for the process to end; says how it did.
  std::string end() {
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    if (WIFSIGNALED(status)) return std::string("was ended by signal ") + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
  }

 private:
  std::deque<PairRange> left_;
  pid_t process_ = -1;
  int pipe_ = -1;
  std::string text_;
};

/// A process has ended: the pair that it was at has failed, and another goes on behind it.
std::unique_ptr<Worker> replace(Worker& worker, const DoPairs& doPairs,
                                const std::function<void(const PairReport&)>& report) {
  const std::string how = worker.end();
  if (worker.idle()) return nullptr;
  const long pair = worker.take();
  report({PairReport::State::Failed, pair, {{"pair", pair}, {"error", "its process " + how}}});
  return worker.idle() ? nullptr : std::make_unique<Worker>(worker.left(), doPairs);
}

}  // namespace

void shareAmongProcesses(int jobs, const std::vector<PairRange>& ranges, const DoPairs& doPairs,
                         const std::function<void(const PairReport&)>& report,
                         const std::function<void()>& poll) {
  constexpr int kPause = 100;  // [ms]
  std::vector<std::unique_ptr<Worker>> workers;
  for (const std::vector<PairRange>& block : split(ranges, jobs)) {
    workers.push_back(std::make_unique<Worker>(block, doPairs));
  }
  while (!workers.empty()) {
    std::vector<pollfd> pipes;
    pipes.reserve(workers.size());
    for (const auto& worker : workers) pipes.push_back({worker->pipe(), POLLIN, 0});
    poll();
    if (::poll(pipes.data(), pipes.size(), kPause) <= 0) continue;
    for (std::size_t k = 0; k < pipes.size(); ++k) {
      if (pipes[k].revents == 0 || workers[k]->read(report)) continue;
      poll();  // an end that was asked for is no failure
      workers[k] = replace(*workers[k], doPairs, report);
    }
    workers.erase(std::remove(workers.begin(), workers.end(), nullptr), workers.end());
  }
}

}  // namespace tool
