#include <tarvo/tarvo.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "commands/commands.h"
#include "commands/flow_io.h"
#include "evaluation/evaluation.h"

namespace tool {

namespace {

using Json = nlohmann::ordered_json;

/// Not-a-number (a mean over nothing) and infinity have no number in JSON.
Json number(double value) {
  return std::isfinite(value) ? Json(value) : Json(nullptr);
}

void printJson(const EvalOptions& options, const CTensor<float>& flow, const Evaluation& result) {
  Json ranges = Json::array();
  for (const Evaluation::Range& range : result.ranges) {
    ranges.push_back({{"from", range.lower},
                      {"to", number(range.upper)},
                      {"pixels", range.used},
                      {"share", range.share},
                      {"epe", number(range.epe)}});
  }
  const Json json{{"flow", options.flow},
                  {"reference", options.reference},
                  {"width", flow.sizeX()},
                  {"height", flow.sizeY()},
                  {"pixels", result.pixels},
                  {"pixels_used", result.used},
                  {"pixels_missing", result.missing},
                  {"epe", number(result.epe)},
                  {"epe_median", number(result.median)},
                  {"epe_99", number(result.percentile99)},
                  {"epe_by_motion", ranges},
                  {"angular_error", number(result.angle)},
                  {"outlier_share", result.outliers}};
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

/// A mean, or a dash where there is none.
std::string text(double value, const char* unit) {
  char line[64];
  std::snprintf(line, sizeof line, "%8.3f %s", value, unit);
  return std::isnan(value) ? "       -" : line;
}

void printTable(const Evaluation& result) {
  std::printf("end-point error   %s\n", text(result.epe, "px").c_str());
  std::printf("  median, 99 %%   %s, %s\n", text(result.median, "px").c_str(),
              text(result.percentile99, "px").c_str());
  const std::array<const char*, 3> names{"motion  0-10 px", "motion 10-40 px", "motion  > 40 px"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::printf("  %s %s  (%.1f %% of the pixels)\n", names[i], text(result.ranges[i].epe, "px").c_str(),
                100 * result.ranges[i].share);
  }
  std::printf("angular error     %s\n", text(result.angle, "degrees").c_str());
  std::printf("outliers          %8.2f %%   (over 3 px and over 5 %%)\n", 100 * result.outliers);
  std::printf("pixels used       %8ld of %ld\n", result.used, result.pixels);
  if (result.missing > 0) {
    std::printf(
        "pixels missing    %8ld   without a value in the flow: outliers, left out of the errors above\n",
        result.missing);
  }
}

}  // namespace

void eval(const EvalOptions& options, const Verbosity& verbosity) {
  routeReport(verbosity, false);
  const CTensor<float> flow = readFlowFile(options.flow, verbosity);
  const CTensor<float> reference = readFlowFile(options.reference, verbosity);
  if (flow.sizeX() != reference.sizeX() || flow.sizeY() != reference.sizeY()) {
    throw std::runtime_error("the flow fields differ in size: " + options.flow + " has " +
                             sizeText(flow.sizeX(), flow.sizeY()) + " pixels, " + options.reference +
                             " has " + sizeText(reference.sizeX(), reference.sizeY()));
  }
  const Evaluation result = evaluate(flow, reference);
  if (result.used == 0) {
    throw std::runtime_error(options.reference + ": the motion of no pixel is known");
  }
  if (options.json) {
    printJson(options, flow, result);
  } else {
    printTable(result);
  }
}

}  // namespace tool
