#pragma once

#include <tarvo/NDevice.h>
#include <tarvo/NReport.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

// The library's process-wide settings for one test, and as they were afterwards.

struct NotCopied {
  NotCopied() = default;
  NotCopied(const NotCopied&) = delete;
  NotCopied& operator=(const NotCopied&) = delete;
};

/// Number of threads of the CPU device.
class KeepThreads : NotCopied {
 public:
  KeepThreads() : before_(NDevice::threads()) {}
  ~KeepThreads() { NDevice::threads(before_); }

 private:
  int before_;
};

/// Collects the report.
class Report : NotCopied {
 public:
  Report() : file_(std::tmpfile()) { NReport::to(file_); }
  ~Report() {
    NReport::to(nullptr);
    std::fclose(file_);
  }

  /// What was printed so far, in lines with their ends.
  std::vector<std::string> lines() const {
    std::vector<std::string> lines;
    std::string line;
    std::rewind(file_);
    for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) {
      line.push_back(static_cast<char>(c));
      if (c == '\n') {
        lines.push_back(line);
        line.clear();
      }
    }
    if (!line.empty()) lines.push_back(line);
    std::fseek(file_, 0, SEEK_END);
    return lines;
  }

 private:
  std::FILE* file_;
};

/// Prints nothing; may be nested.
class Silence : NotCopied {
 public:
  Silence() {
    ++depth();
    NReport::silence();
  }
  ~Silence() {
    if (--depth() == 0) NReport::to(nullptr);
  }

 private:
  static int& depth() {
    static int count = 0;
    return count;
  }
};

/// A device error, with the library's message.
struct DeviceFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Device errors become exceptions.
class ThrowOnError : NotCopied {
 public:
  ThrowOnError() {
    NDevice::onError([](const std::string& message) { throw DeviceFailure(message); });
  }
  ~ThrowOnError() {
    NDevice::failCall(0);
    NDevice::onError({});
  }
};

/// Pass counts that the library tells.
class Progress : NotCopied {
 public:
  Progress() {
    NReport::progress([this](int done, int total) { calls_.push_back({done, total}); });
  }
  ~Progress() { NReport::progress({}); }

  struct Call {
    int done, total;
  };
  const std::vector<Call>& calls() const { return calls_; }

 private:
  std::vector<Call> calls_;
};
