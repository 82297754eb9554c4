#include "kernel_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "machine.h"

namespace bench {
namespace {

const std::vector<std::string> kHeads = {"kernel or routine", "size", "ns/pixel", "spread",
                                         "bytes/pixel",       "GB/s", "of triad"};

std::vector<std::string> splitName(const std::string& name) {
  const std::size_t slash = name.find('/');
  const std::size_t end = name.find('/', slash + 1);  // what the package appends: "/manual_time"
  return {name.substr(0, slash), name.substr(slash + 1, end - slash - 1)};
}

}  // namespace

double KernelReport::Row::gigabytesPerSecond() const {
  return bytesPerPixel / median(nsPerPixel);
}

void KernelReport::ReportRuns(const std::vector<Run>& runs) {
  Row row{};
  for (const Run& run : runs) {
    if (run.error_occurred) {
      std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      failed_ = true;
      return;
    }
    if (run.run_type != Run::RT_Iteration) continue;
    const std::vector<std::string> name = splitName(run.run_name.str());
    row.order = run.family_index;
    row.name = name[0];
    row.size = name[1];
    row.nsPerPixel.push_back(run.counters.at(kNsPerPixel).value);
    row.bytesPerPixel = run.counters.at(kBytesPerPixel).value;
    row.footprint = run.counters.at(kFootprint).value;
  }
  if (!row.nsPerPixel.empty()) rows_.push_back(row);
}

std::string KernelReport::share(const Row& row) const {
  const Row* nearest = nullptr;
  const auto distance = [&](const Row& other) { return std::abs(std::log(other.footprint / row.footprint)); };
  for (const Row& other : rows_) {
    const bool team = other.isTriad() && other.name.find("_kernel") != std::string::npos;
    if (team && (nearest == nullptr || distance(other) < distance(*nearest))) nearest = &other;
  }
  if (row.isTriad() || nearest == nullptr) return "";
  return format("%.0f %%", 100.0 * row.gigabytesPerSecond() / nearest->gigabytesPerSecond());
}

std::vector<std::vector<std::string>> KernelReport::cells() const {
  std::vector<std::vector<std::string>> table;
  std::vector<Row> rows = rows_;
  std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.order < b.order; });
  for (const bool triads : {true, false}) {
    for (const Row& row : rows) {
      if (row.isTriad() != triads) continue;
      table.push_back({row.name, row.size, format("%.3g", median(row.nsPerPixel)), spreadText(row.nsPerPixel),
                       format("%.4g", row.bytesPerPixel), format("%.3g", row.gigabytesPerSecond()),
                       share(row)});
    }
  }
  return table;
}

std::string KernelReport::text() const {
  std::string out;
  const auto line = [&](const std::vector<std::string>& c) {
    out += format("%-40s %-8s %9s %7s %11s %7s %9s\n", c[0].c_str(), c[1].c_str(), c[2].c_str(), c[3].c_str(),
                  c[4].c_str(), c[5].c_str(), c[6].c_str());
  };
  line(kHeads);
  for (const auto& row : cells()) line(row);
  return out;
}

std::string KernelReport::markdown() const {
  std::string out;
  const auto line = [&](const std::vector<std::string>& row) {
    out += "|";
    for (const std::string& cell : row) out += " " + cell + " |";
    out += "\n";
  };
  line(kHeads);
  out += "|---|---|--:|--:|--:|--:|--:|\n";
  for (const auto& row : cells()) line(row);
  return out;
}

}  // namespace bench
