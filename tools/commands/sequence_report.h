#pragma once

#include <chrono>
#include <string>

#include "commands/console.h"
#include "sequence/pairs.h"

namespace tool {

/// What a user hears of a sequence: a bar with the time left on a terminal, a line of JSON for each pair if asked
/// for, failures on standard error, and a summary.
class SequenceReport {
 public:
  /// @param pairs      of all clips; negative: not known
  /// @param nameClips  lines tell the clip
  SequenceReport(const Verbosity& verbosity, bool json, long pairs, bool nameClips);

  /// The clip of the pairs that follow.
  void clip(const std::string& name) { clip_ = name; }
  void add(const PairReport& pair);
  /// Prints the summary.
  void finish();
  long failed() const { return failed_; }

 private:
  void drawBar() const;
  double seconds() const;

  Verbosity verbosity_;
  bool json_, nameClips_, bar_;
  long pairs_;
  std::string clip_;
  long done_ = 0, skipped_ = 0, failed_ = 0, cuts_ = 0;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace tool
