#include "flow_report.h"

#include "machine.h"

namespace bench {
namespace {

constexpr double kMebi = 1024.0 * 1024.0;

std::string sizeText(const FlowRow& row) {
  return format("%dx%d", row.width, row.height);
}

std::string joined(const std::vector<double>& values) {
  std::string out = "[";
  for (const double value : values) out += format("%s%.6f", out.size() > 1 ? ", " : "", value);
  return out + "]";
}

/// One row's figures as text; the heads stand beside.
std::vector<std::string> cells(const FlowRow& row) {
  std::vector<std::string> out = {sizeText(row), std::to_string(row.threads),
                                  format("%.3f", median(row.total)), spreadText(row.total)};
  for (const auto& phase : row.phases) out.push_back(format("%.3f", median(phase)));
  out.push_back(format("%.0f", row.nanosecondsPerPixel()));
  out.push_back(format("%.3g", row.triad));
  out.push_back(format("%.1f", row.megapixelPassesPerSecond()));
  out.push_back(format("%.3f", row.endPointError));
  out.push_back(format("%.3f", row.endPointErrorVisible));
  out.push_back(format("%.0f", row.peakMemory / kMebi));
  out.push_back(format("%.0f", row.libraryMemory / kMebi));
  out.push_back(format("%.2f", row.load));
  return out;
}

std::vector<std::string> heads() {
  std::vector<std::string> out = {"size", "threads", "total", "spread"};
  for (const PhaseName& phase : kPhaseNames) out.emplace_back(phase.key);
  for (const char* head : {"ns/px", "triad", "Mpx/s", "EPE", "EPE seen", "peak", "library", "load"})
    out.emplace_back(head);
  return out;
}

std::string textLine(const std::vector<std::string>& row) {
  std::string out;
  for (std::size_t i = 0; i < row.size(); ++i) out += format(i == 0 ? "%-10s" : " %9s", row[i].c_str());
  return out + "\n";
}

std::string markdownLine(const std::vector<std::string>& row) {
  std::string out = "|";
  for (const std::string& cell : row) out += " " + cell + " |";
  return out + "\n";
}

std::string rowJson(const FlowRow& row) {
  std::string out =
      format("    {\"name\": \"%s, threads %d\", \"width\": %d, \"height\": %d, \"threads\": %d,\n",
             sizeText(row).c_str(), row.threads, row.width, row.height, row.threads);
  out += format("     \"passes\": %d, \"megapixel_passes\": %.6f, \"megapixel_passes_per_s\": %.6f,\n",
                row.passes, row.megapixelPasses, row.megapixelPassesPerSecond());
  out += format("     \"total_s\": %.6f, \"epe\": %.6f, \"epe_visible\": %.6f, \"load\": %.2f,\n",
                median(row.total), row.endPointError, row.endPointErrorVisible, row.load);
  out += format("     \"ns_per_pixel\": %.3f, \"triad_gb_per_s\": %.3f,\n", row.nanosecondsPerPixel(),
                row.triad);
  out += format("     \"peak_memory_bytes\": %.0f, \"library_memory_bytes\": %.0f,\n", row.peakMemory,
                row.libraryMemory);
  out += "     \"runs_s\": {\"total\": " + joined(row.total);
  for (std::size_t k = 0; k < kPhases; ++k)
    out += ", " + quoted(kPhaseNames[k].key) + ": " + joined(row.phases[k]);
  return out + "}}";
}

}  // namespace

const std::array<PhaseName, kPhases> kPhaseNames = {{
    {"smooth", "smoothing of the pictures beforehand (off by default)"},
    {"transfer", "upload of the pictures, download of the flow"},
    {"match", "descriptors and matching"},
    {"var", "the variational stage; the next four are parts of it"},
    {"pyramid", "pictures and matches of every level"},
    {"warp", "flow carried to the next level, second picture warped"},
    {"assembly", "tensors, weights and systems of the fixed-point steps"},
    {"solver", "the linear solves"},
}};

double FlowRow::megapixelPassesPerSecond() const {
  const double seconds = median(phases[kVariational]);
  return seconds > 0.0 ? megapixelPasses / seconds : 0.0;
}

double FlowRow::nanosecondsPerPixel() const {
  return 1e9 * median(total) / (static_cast<double>(width) * height);
}

std::string flowHead() {
  return textLine(heads());
}

std::string flowLine(const FlowRow& row) {
  return textLine(cells(row));
}

std::string flowMarkdown(const std::vector<FlowRow>& rows, const Machine& machine) {
  std::string out;
  for (const auto& fact : machine) out += "- " + fact.first + ": " + fact.second + "\n";
  out += "\n" + markdownLine(heads()) + "|---|";
  for (std::size_t i = 1; i < heads().size(); ++i) out += "--:|";
  out += "\n";
  for (const FlowRow& row : rows) out += markdownLine(cells(row));
  return out;
}

std::string flowJson(const std::vector<FlowRow>& rows, const Machine& machine) {
  std::string out = "{\n  \"context\": {";
  for (std::size_t i = 0; i < machine.size(); ++i) {
    out += (i > 0 ? ",\n    " : "\n    ") + quoted(machine[i].first) + ": " + quoted(machine[i].second);
  }
  out += "\n  },\n  \"rows\": [\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    out += rowJson(rows[i]) + (i + 1 < rows.size() ? ",\n" : "\n");
  return out + "  ]\n}\n";
}

}  // namespace bench
