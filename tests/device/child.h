#pragma once

#include <sys/wait.h>
#include <unistd.h>

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
