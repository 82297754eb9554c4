#pragma once

/// The library's own printing. Everything meant for standard output goes through here, so that a client can
/// redirect or silence it (NReport). Messages of exceptions and device errors go to standard error.
namespace report {

/// Prints like printf to the report's stream.
void print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Tells the client's progress callback, and the watch of this computation, that `done` of `total` passes of
/// the current run are done.
void progress(int done, int total);

/// While an object of this class exists, progress() counts the passes of `runs` equal runs as one sequence;
/// nextRun() begins the next run.
class Runs {
 public:
  explicit Runs(int runs);
  ~Runs();
  Runs(const Runs&) = delete;
  Runs& operator=(const Runs&) = delete;
  void nextRun();
};

/// While an object of this class exists, this thread prints to a stream that the client has named, or nothing.
class Quiet {
 public:
  Quiet();
  ~Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
};

}  // namespace report
