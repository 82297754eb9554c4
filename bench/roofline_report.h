#pragma once

#include <string>
#include <utility>
#include <vector>

#include "machine_limits.h"
#include "phases.h"

namespace bench {

/// A phase's work and time beside the limits that were measured in the same run.
struct RooflineRow {
  PhaseWork phase;
  int width, height;
  std::vector<double> seconds;  ///< of each round, on limits->threads() threads
  const Limits* limits;

  /// Seconds of the fastest round.
  double fastest() const;
  /// Shares of the limits that the fastest round reaches: least seconds by the limit / seconds. Of the
  /// limits, too, the best round counts: what else the machine does lowers both.
  double memoryShare() const;
  double flopShare() const;
  double rootShare() const;
};

using Machine = std::vector<std::pair<std::string, std::string>>;

/// The limits of a team in words, one line each: arithmetic, and the triad at several footprints.
std::vector<std::string> limitLines(const Limits& limits);

std::string rooflineText(const std::vector<RooflineRow>& rows);
std::string rooflineMarkdown(const std::vector<RooflineRow>& rows, const std::vector<Limits>& limits,
                             double load);
/// Every measurement.
std::string rooflineJson(const std::vector<RooflineRow>& rows, const std::vector<Limits>& limits,
                         const Machine& machine, double load);

}  // namespace bench
