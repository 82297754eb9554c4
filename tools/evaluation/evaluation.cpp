#include "evaluation/evaluation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <vector>

namespace {

constexpr double kUnknown = 1e9;
constexpr double kDegrees = 57.29577951308232;
constexpr double kOutlierPixels = 3;
constexpr double kOutlierShare = 0.05;

/// Angle between (u1, v1, 1) and (u2, v2, 1) in degrees, by the cross and the dot product: exact for small
/// angles.
double spaceTimeAngle(double u1, double v1, double u2, double v2) {
  const double cross = std::hypot(v1 - v2, u2 - u1, u1 * v2 - v1 * u2);
  return std::atan2(cross, u1 * u2 + v1 * v2 + 1) * kDegrees;
}

double ratio(double sum, long count) {
  return count > 0 ? sum / count : std::numeric_limits<double>::quiet_NaN();
}

/// The smallest value that `share` of all values do not exceed. Reorders the values.
double quantile(std::vector<double>& values, double share) {
  if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
  const auto rank = std::ceil(share * static_cast<double>(values.size()));
  const auto nth = values.begin() + static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
  std::nth_element(values.begin(), nth, values.end());
  return *nth;
}

/// Sums over the pixels of a flow field.
struct Accumulator {
  Evaluation result{};
  std::array<double, 3> errors{};  // end-point errors by range
  std::array<long, 3> measured{};  // how many: used and not missing
  std::vector<double> all;
  double angles = 0;
  long outliers = 0;

  void add(float u, float v, float trueU, float trueV);
  Evaluation finish();
};

void Accumulator::add(float u, float v, float trueU, float trueV) {
  if (!isKnown(trueU, trueV)) return;
  const double length = std::hypot(double(trueU), double(trueV));
  const std::size_t range = length < 10 ? 0 : length <= 40 ? 1 : 2;
  ++result.ranges[range].used;
  if (!isKnown(u, v)) {
    ++result.missing;
    ++outliers;
    return;
  }
  const double error = std::hypot(double(u) - trueU, double(v) - trueV);
  ++measured[range];
  errors[range] += error;
  all.push_back(error);
  angles += spaceTimeAngle(u, v, trueU, trueV);
  outliers += error > kOutlierPixels && error > kOutlierShare * length;
}

/// The means; reorders the errors.
Evaluation Accumulator::finish() {
  result.used = result.ranges[0].used + result.ranges[1].used + result.ranges[2].used;
  for (std::size_t i = 0; i < 3; ++i) {
    result.ranges[i].share = ratio(result.ranges[i].used, result.used);
    result.ranges[i].epe = ratio(errors[i], measured[i]);
  }
  const auto count = static_cast<long>(all.size());
  result.epe = ratio(errors[0] + errors[1] + errors[2], count);
  result.median = quantile(all, 0.5);
  result.percentile99 = quantile(all, 0.99);
  result.angle = ratio(angles, count);
  result.outliers = ratio(outliers, result.used);
  return result;
}

}  // namespace

void checkFinite(const CTensor<float>& flow) {
  const auto finite = [](float value) { return std::isfinite(value); };
  const long bad = flow.size() - std::count_if(flow.data(), flow.data() + flow.size(), finite);
  if (bad == 0) return;
  throw std::runtime_error("the flow is not a number at " + std::to_string(bad) + " of " +
                           std::to_string(flow.size()) + " values: --alpha, --beta or --gamma is too large");
}

bool isKnown(float u, float v) {
  return std::abs(u) < kUnknown && std::abs(v) < kUnknown;
}

Evaluation evaluate(const CTensor<float>& flow, const CTensor<float>& reference) {
  if (flow.sizeX() != reference.sizeX() || flow.sizeY() != reference.sizeY()) {
    throw std::invalid_argument("the flow fields have different sizes");
  }
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  Accumulator sums;
  sums.result.pixels = static_cast<long>(flow.sizeX()) * flow.sizeY();
  sums.result.ranges = {{{0, 10, 0, 0, 0}, {10, 40, 0, 0, 0}, {40, kInfinity, 0, 0, 0}}};
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      sums.add(flow(x, y, 0), flow(x, y, 1), reference(x, y, 0), reference(x, y, 1));
    }
  }
  return sums.finish();
}
