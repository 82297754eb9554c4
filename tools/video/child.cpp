#include "video/child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace video {

namespace {

constexpr std::size_t kMostOutput = 1u << 20;

/// The same end at a number that no descriptor of a program takes.
int moved(int descriptor) {
  constexpr int kFirstFree = 10;
  const int number = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstFree);
  close(descriptor);
  return number;
}

/// What spawning a program needs; freed in the end.
struct Spawn {
  Spawn() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t none, pipe;
    sigemptyset(&none);
    sigemptyset(&pipe);
    sigaddset(&pipe,
              SIGPIPE);  // a program that nobody reads ends, also where this process ignores the signal
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &pipe);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Spawn() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  Spawn(const Spawn&) = delete;
  Spawn& operator=(const Spawn&) = delete;

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

}  // namespace

void Descriptor::reset(int number) {
  if (number_ >= 0) {
    close(number_);
  }
  number_ = number;
}

Pipe::Pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("no pipe can be made (") + std::strerror(errno) + ")");
  }
  read.reset(moved(ends[0]));
  write.reset(moved(ends[1]));
  if (read.get() < 0 || write.get() < 0) {
    throw std::runtime_error("no pipe can be made (too many open files)");
  }
}

Child::Child(const std::vector<std::string>& words, const std::vector<int>& descriptors) {
  Spawn spawn;
  for (std::size_t i = 0; i < descriptors.size(); ++i) {
    const int number = static_cast<int>(i);
    if (descriptors[i] < 0) {
      posix_spawn_file_actions_addopen(&spawn.actions, number, "/dev/null", O_RDWR, 0);
    } else {
      posix_spawn_file_actions_adddup2(&spawn.actions, descriptors[i], number);
    }
  }
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  const int error =
      posix_spawnp(&pid_, arguments[0], &spawn.actions, &spawn.attributes, arguments.data(), environ);
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error(words[0] + ": cannot be started (" + std::strerror(error) + ")");
  }
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    wait();
  }
}

int Child::wait() {
  int status = 0;
  while (pid_ > 0) {
    const pid_t ended = waitpid(pid_, &status, 0);
    if (ended < 0 && errno == EINTR) {
      continue;
    }
    status_ = ended < 0 ? 0 : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    pid_ = -1;
  }
  return status_;
}

std::string outputOf(const std::vector<std::string>& words) {
  Pipe out, err;
  Child child(words, {-1, out.write.get(), err.write.get()});
  out.write.reset();
  err.write.reset();
  std::array<std::string, 2> texts;
  std::array<pollfd, 2> ends{pollfd{out.read.get(), POLLIN, 0}, pollfd{err.read.get(), POLLIN, 0}};
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    poll(ends.data(), ends.size(), -1);
    for (std::size_t i = 0; i < ends.size(); ++i) {
      std::array<char, 4096> part{};
      if (ends[i].fd < 0 || ends[i].revents == 0) {
        continue;
      }
      const ssize_t got = read(ends[i].fd, part.data(), part.size());
      if (got > 0 && texts[i].size() < kMostOutput) {
        texts[i].append(part.data(), static_cast<std::size_t>(got));
      } else if (got == 0 || (got < 0 && errno != EINTR)) {
        ends[i].fd = -1;
      }
    }
  }
  if (const int status = child.wait()) {
    const std::string reason = lastLine(texts[1]);
    throw std::runtime_error(words[0] + " failed (" +
                             (reason.empty() ? "status " + std::to_string(status) : reason) + ")");
  }
  return texts[0];
}

std::string lastLine(const std::string& messages) {
  std::string line;
  for (std::size_t at = 0; at < messages.size();) {
    const std::size_t end = std::min(messages.find('\n', at), messages.size());
    const std::string next = messages.substr(at, end - at);
    if (next.find_first_not_of(" \r") != std::string::npos &&
        next.find("Last message repeated") == std::string::npos) {
      line = next;
    }
    at = end + 1;
  }
  const std::size_t address = line.find("] ");
  return line.compare(0, 1, "[") == 0 && address != std::string::npos ? line.substr(address + 2) : line;
}

}  // namespace video
