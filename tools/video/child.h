#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace video {

/// A file descriptor that is closed in the end, and not passed on to other programs.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number_; }
  void reset(int number = -1);

 private:
  int number_ = -1;
};

/// The two ends of a pipe.
/// @throws std::runtime_error  if there are no descriptors left
struct Pipe {
  Pipe();
  Descriptor read, write;
};

/// A program that runs beside this one. It takes part in nothing of this process but the descriptors given.
class Child {
 public:
  /// @param words        program, searched in PATH, and its arguments, passed on without a shell
  /// @param descriptors  become 0, 1, 2, ... of the program; -1: an empty file
  /// @throws std::runtime_error  naming the program, if it cannot be started
  Child(const std::vector<std::string>& words, const std::vector<int>& descriptors);
  /// Kills the program if it still runs, and waits for it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Waits for the end: the exit status, or minus the signal that ended the program.
  int wait();

 private:
  pid_t pid_ = -1;
  int status_ = 0;
};

/// Runs a program to its end.
/// @return  what it wrote to its standard output, at most 1 MB
/// @throws std::runtime_error  naming the program, and with its last message, if it fails
std::string outputOf(const std::vector<std::string>& words);

/// The last line of a program's messages that says something, without addresses in memory.
std::string lastLine(const std::string& messages);

}  // namespace video
