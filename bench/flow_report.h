#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// Phases of one flow computation, in the order of FlowRow::phases.
enum Phase {
  kSmoothing,
  kTransfer,
  kMatching,
  kVariational,
  kPyramid,
  kWarping,
  kAssembly,
  kSolver,
  kPhases
};
struct PhaseName {
  const char *key, *meaning;
};
extern const std::array<PhaseName, kPhases> kPhaseNames;

/// Repeated computations of one picture size with one number of threads.
struct FlowRow {
  int width, height, threads;
  int passes;                                       ///< of the coarse-to-fine scheme
  double megapixelPasses;                           ///< pixels of all passes together, in millions
  std::vector<double> total;                        ///< seconds of each run, by a clock around the call
  std::array<std::vector<double>, kPhases> phases;  ///< seconds of each run
  double endPointError;                             ///< mean over the picture [pixels]
  double endPointErrorVisible;                      ///< over the pixels seen in both frames
  double peakMemory;                                ///< of the process while computing [bytes]
  double libraryMemory;  ///< device memory that the library holds afterwards [bytes]
  double load;           ///< load average before the runs
  double triad;  ///< bandwidth of the team triad that touches as much as a solve at full resolution [GB/s]

  double megapixelPassesPerSecond() const;
  /// Median time of a direction divided by the picture's pixels.
  double nanosecondsPerPixel() const;
};

using Machine = std::vector<std::pair<std::string, std::string>>;

/// Tables of medians.
std::string flowHead();
std::string flowLine(const FlowRow& row);
std::string flowMarkdown(const std::vector<FlowRow>& rows, const Machine& machine);

/// Every measurement.
std::string flowJson(const std::vector<FlowRow>& rows, const Machine& machine);

}  // namespace bench
