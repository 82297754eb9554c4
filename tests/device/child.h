#pragma once

#include <sys/wait.h>
#include <unistd.h>

/// The address sanitizer of g++ 12 does not hold its allocator's locks across a fork: a child of a process whose
/// other threads allocate may wait for them for ever.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kForksBesideThreads = false;
#else
constexpr bool kForksBesideThreads = true;
#endif

/// Runs `work` in a forked child that may take 30 s; its exit status, or -1 where it did not exit.
template <class Work>
int statusOfChild(const Work& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    int status = 99;
    try {
      status = work();
    } catch (...) {
    }
    _exit(status);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
