#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace bench {

/// Counters of every kernel benchmark.
inline constexpr const char* kNsPerPixel = "ns_per_pixel";
inline constexpr const char* kBytesPerPixel = "bytes_per_pixel";
inline constexpr const char* kGigabytesPerSecond = "GB_per_s";
inline constexpr const char* kFootprint = "footprint_bytes";

/// Collects the repetitions of each benchmark and makes a table of medians. Triads come first; every other
/// row says which share of the bandwidth of the triad with the nearest footprint it reaches.
class KernelReport : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override;

  /// As text for a terminal, or as a Markdown table.
  std::string text() const;
  std::string markdown() const;
  /// Whether a benchmark was stopped by an error.
  bool failed() const { return failed_; }

 private:
  struct Row {
    long order;
    std::string name, size;
    std::vector<double> nsPerPixel;
    double bytesPerPixel = 0.0, footprint = 0.0;
    bool isTriad() const { return name.compare(0, 5, "triad") == 0; }
    double gigabytesPerSecond() const;
  };

  std::string share(const Row& row) const;
  std::vector<std::vector<std::string>> cells() const;

  std::vector<Row> rows_;
  bool failed_ = false;
};

}  // namespace bench
