#include "roofline_report.h"

#include <algorithm>

#include "machine.h"

namespace bench {
namespace {

const std::vector<std::string> kHeads = {"phase", "threads", "from",     "Mpx",        "ms",
                                         "ns/px", "spread",  "bytes/px", "flops/px",   "roots/px",
                                         "GB/s",  "GFLOP/s", "memory",   "arithmetic", "nearer limit"};

std::string percent(double share) {
  return format(share < 0.0995 ? "%.1f %%" : "%.0f %%", 100.0 * share);
}

std::vector<std::string> cells(const RooflineRow& row) {
  const Work& work = row.phase.work;
  const double pixels = work.pixels(), seconds = median(row.seconds);
  const double arithmetic = std::max(row.flopShare(), row.rootShare());
  const char* const kind = row.rootShare() > row.flopShare() ? "roots" : "arithmetic";
  return {row.phase.name,
          std::to_string(row.limits->threads()),
          row.phase.source == Source::Clock ? "clock" : "call",
          format("%.3g", 1e-6 * pixels),
          format("%.3g", 1e3 * seconds),
          format("%.3g", 1e9 * seconds / pixels),
          spreadText(row.seconds),
          format("%.4g", work.bytes() / pixels),
          format("%.4g", work.flops() / pixels),
          format("%.3g", work.roots() / pixels),
          format("%.3g", 1e-9 * work.bytes() / seconds),
          format("%.3g", 1e-9 * work.flops() / seconds),
          percent(row.memoryShare()),
          percent(arithmetic),
          (row.memoryShare() >= arithmetic ? "memory " : std::string(kind) + " ") +
              percent(std::max(row.memoryShare(), arithmetic))};
}

std::string sizeText(double bytes) {
  return bytes < 1e6 ? format("%.0f kB", bytes / 1e3) : format("%.0f MB", bytes / 1e6);
}

std::string limitsJson(const Limits& limits) {
  const ArithmeticPeak peak = limits.peak();
  std::string out = format(
      "    {\"threads\": %d, \"gflops\": %.3f, \"groots\": %.4f, \"clock_ghz\": %.3f, \"lanes\": %d, "
      "\"triads\": [",
      limits.threads(), peak.flops, peak.roots, limits.clock(), vectorUnit().lanes);
  const auto ladder = limits.ladder();
  for (std::size_t i = 0; i < ladder.size(); ++i) {
    out += format("%s[%.0f, %.3f]", i > 0 ? ", " : "", ladder[i].first, ladder[i].second);
  }
  return out + "]}";
}

std::string rowJson(const RooflineRow& row) {
  const Work& work = row.phase.work;
  const double pixels = work.pixels();
  std::string out = format("    {\"name\": \"%s, %dx%d, threads %d\", \"from\": \"%s\", \"pixels\": %.0f,\n",
                           row.phase.name.c_str(), row.width, row.height, row.limits->threads(),
                           row.phase.source == Source::Clock ? "clock" : "call", pixels);
  out += format("     \"bytes_per_pixel\": %.4f, \"flops_per_pixel\": %.4f, \"roots_per_pixel\": %.4f,\n",
                work.bytes() / pixels, work.flops() / pixels, work.roots() / pixels);
  out += format("     \"memory_share\": %.5f, \"flop_share\": %.5f, \"root_share\": %.5f,\n",
                row.memoryShare(), row.flopShare(), row.rootShare());
  out += "     \"runs_s\": {\"time\": [";
  for (std::size_t i = 0; i < row.seconds.size(); ++i) {
    out += format("%s%.9f", i > 0 ? ", " : "", row.seconds[i]);
  }
  return out + "]}}";
}

}  // namespace

double RooflineRow::fastest() const {
  return *std::min_element(seconds.begin(), seconds.end());
}
double RooflineRow::memoryShare() const {
  const auto bandwidth = [this](double footprint) { return limits->bandwidth(footprint); };
  return phase.work.memorySeconds(bandwidth) / fastest();
}
double RooflineRow::flopShare() const {
  return 1e-9 * phase.work.flops() / limits->peak().flops / fastest();
}
double RooflineRow::rootShare() const {
  return 1e-9 * phase.work.roots() / limits->peak().roots / fastest();
}

std::vector<std::string> limitLines(const Limits& limits) {
  const ArithmeticPeak peak = limits.peak();
  const VectorUnit unit = vectorUnit();
  const double perCycle = peak.flops / (2.0 * unit.lanes * limits.threads() * limits.clock());
  std::string triads;
  for (const auto& triad : limits.ladder()) {
    triads += format("%s%s %.3g", triads.empty() ? "" : ", ", sizeText(triad.first).c_str(), triad.second);
  }
  const int threads = limits.threads();
  return {
      format(
          "threads %d: %.1f GFLOP/s by %s of %d lanes, %.2f of them per cycle and thread at %.2f GHz; %.2f "
          "billion inverse roots in double precision per second",
          threads, peak.flops, unit.fused ? "multiply-adds" : "multiplications and additions", unit.lanes,
          perCycle, limits.clock(), peak.roots),
      format("threads %d: triad, GB/s by memory touched: %s", threads, triads.c_str())};
}

std::string rooflineText(const std::vector<RooflineRow>& rows) {
  std::string out;
  const auto line = [&out](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) out += format(i == 0 ? "%-12s" : " %8s", row[i].c_str());
    out += "  " + row.back() + "\n";
  };
  line(kHeads);
  for (const RooflineRow& row : rows) line(cells(row));
  return out;
}

std::string rooflineMarkdown(const std::vector<RooflineRow>& rows, const std::vector<Limits>& limits,
                             double load) {
  std::string out = format("Load average at the start: %.2f.\n\n", load);
  for (const Limits& team : limits) {
    for (const std::string& text : limitLines(team)) out += "- " + text + "\n";
  }
  const auto line = [&out](const std::vector<std::string>& row) {
    out += "|";
    for (const std::string& cell : row) out += " " + cell + " |";
    out += "\n";
  };
  out += "\n";
  line(kHeads);
  out += "|---|--:|---|";
  for (std::size_t i = 3; i + 1 < kHeads.size(); ++i) out += "--:|";
  out += "---|\n";
  for (const RooflineRow& row : rows) line(cells(row));
  return out;
}

std::string rooflineJson(const std::vector<RooflineRow>& rows, const std::vector<Limits>& limits,
                         const Machine& machine, double load) {
  std::string out = "{\n  \"context\": {";
  for (const auto& fact : machine) out += quoted(fact.first) + ": " + quoted(fact.second) + ",\n    ";
  out += format("\"load\": \"%.2f\"\n  },\n  \"limits\": [\n", load);
  for (std::size_t i = 0; i < limits.size(); ++i) {
    out += limitsJson(limits[i]) + (i + 1 < limits.size() ? ",\n" : "\n");
  }
  out += "  ],\n  \"rows\": [\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    out += rowJson(rows[i]) + (i + 1 < rows.size() ? ",\n" : "\n");
  return out + "  ]\n}\n";
}

}  // namespace bench
