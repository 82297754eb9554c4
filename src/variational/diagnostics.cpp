#include <tarvo/elementwise.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "device/device.h"
#include "device/report.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

std::vector<float> downloaded(const float* a, int h, int w, int p) {
  std::vector<float> values(static_cast<std::size_t>(h) * static_cast<std::size_t>(w));
  TARVO_CALL(device::copyPlanes(values.data(), w, a, p, h, w, 1, device::Direction::ToHost));
  return values;
}

}  // namespace

void print_stats(const float* a, int h, int w, int p) {
  float least = 1000000000.0f;
  float most = -1000000000.0f;
  float sum = 0.0f;
  float squares = 0.0f;
  for (const float value : downloaded(a, h, w, p)) {
    least = std::min(least, value);
    most = std::max(most, value);
    sum += value;
    squares += value * value;
  }
  const auto count = static_cast<float>(h * w);
  report::print("max=%f min=%f mean=%f rms=%f \n", static_cast<double>(most), static_cast<double>(least),
                static_cast<double>(sum / count), static_cast<double>(std::sqrt(squares / count)));
}

float findSum(const float* a, int h, int w, int p) {
  float sum = 0.0f;
  for (const float value : downloaded(a, h, w, p)) sum += value;
  return sum;
}

float reduce_rms(const float* a, int n) {
  float squares = 0.0f;
  for (const float value : downloaded(a, 1, n, n)) squares += value * value;
  return std::sqrt(squares / static_cast<float>(n));
}

void print_slice(const float* a, int x0, int x1, int y0, int y1, int p) {
  report::print("[\n");
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) report::print("%f ", static_cast<double>(a[y * p + x]));
    report::print("\n");
  }
  report::print("]\n");
}
