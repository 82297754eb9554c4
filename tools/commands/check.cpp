#include <tarvo/tarvo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "commands/commands.h"
#include "pictures/picture.h"

namespace tool {

namespace {

constexpr int kBorder = 3;                   // pixels; closer to it the two average differently
constexpr int kFirstBin = 1, kLastBin = 13;  // the outermost two are smoothed differently
constexpr double kMostDiffering = 0.001;     // share of values; sector borders are met by rounding

/// Values of two histogram fields that are further apart than rounding explains.
struct Comparison {
  long values = 0, differing = 0;
  double bound = 0;

  double share() const { return static_cast<double>(differing) / static_cast<double>(values); }
};

/// A mean over 7 x 7 pixels by running sums along rows and columns: as many roundings as a line has pixels,
/// with ten times their typical sum.
double roundingBound(const CTensor<float>& field) {
  const float largest = *std::max_element(field.data(), field.data() + field.size());
  return 10 * std::numeric_limits<float>::epsilon() * std::sqrt(double(field.sizeX() + field.sizeY())) *
         double(largest);
}

Comparison compare(const CTensor<float>& host, const CTensor<float>& device) {
  Comparison result;
  result.bound = roundingBound(host);
  for (int b = kFirstBin; b <= kLastBin; ++b) {
    for (int y = kBorder; y < host.sizeY() - kBorder; ++y) {
      for (int x = kBorder; x < host.sizeX() - kBorder; ++x) {
        ++result.values;
        const double apart = std::fabs(double(host(x, y, b)) - double(device(x, y, b)));
        if (!(apart <= result.bound)) ++result.differing;
      }
    }
  }
  return result;
}

}  // namespace

void check(const CheckOptions& options, const Verbosity& verbosity) {
  std::vector<std::string> messages;
  const CTensor<float> frame = readPicture(options.frame, &messages);
  for (const std::string& text : messages) {
    message(verbosity, text);
  }
  if (std::min(frame.sizeX(), frame.sizeY()) <= 2 * kBorder) {
    throw std::runtime_error(options.frame + ": " + sizeText(frame.sizeX(), frame.sizeY()) +
                             " pixels are too few to compare, each side needs 7");
  }
  routeReport(verbosity, true);
  NDevice::select(options.device);
  HOGCheck(frame);
  confCheck(frame);

  CTensor<float> host, device(frame.sizeX(), frame.sizeY(), kHogBins);
  computeHOG(frame, host);
  ComputeHOGGPU(frame.data(), device.data(), frame.sizeZ(), frame.sizeX(), frame.sizeY());
  const Comparison result = compare(host, device);
  const bool agree = result.share() <= kMostDiffering;
  std::printf(
      "histograms of host and device %s: %.4f %% of %ld values differ by more than %.3g (bins %d to "
      "%d, %d pixels inside the border)\n",
      agree ? "agree" : "DIFFER", 100 * result.share(), result.values, result.bound, kFirstBin, kLastBin,
      kBorder);
  if (!agree) throw std::runtime_error("host and device disagree on " + NDevice::current());
}

}  // namespace tool
