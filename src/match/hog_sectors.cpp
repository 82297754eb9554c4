#include "match/hog_sectors.h"

#include <tarvo/NMath.h>
#include <tarvo/hog.h>

#include <limits>

#include "device/cpu/band.h"

namespace match {

namespace {

/// Sectors of the device field as its formula counts them, from an angle rounded to float.
int deviceFormula(float angle, int bins) {
  // Not pi: with more digits a gradient along -x would not wrap around to sector 0.
  const auto shifted = static_cast<float>(static_cast<double>(angle) + 3.1415926);
  const float scaled = static_cast<float>(bins) * shifted;
  return static_cast<int>(static_cast<double>(scaled) / 6.2831853);
}

/// The same of the host field, from the angle plus Pi, rounded to float.
int hostFormula(float shifted, int bins) {
  return static_cast<int>(shifted * static_cast<float>(bins / (2.0 * static_cast<double>(NMath::Pi))));
}

/// The smallest angle that `formula` counts as `sector` or more once it is rounded to float. It lies midway
/// between two floats, which bisection finds in [before, from]. Not-a-number if there is none.
template <class Formula>
double borderOf(const Formula& formula, int bins, int sector, float before, float from) {
  if (formula(from, bins) < sector) return std::numeric_limits<double>::quiet_NaN();
  for (;;) {
    const double between = (static_cast<double>(before) + static_cast<double>(from)) / 2.0;
    const auto middle = static_cast<float>(between);
    if (middle <= before || middle >= from) return between;
    (formula(middle, bins) >= sector ? from : before) = middle;
  }
}

/// The angle must be exact: near 180 degrees a direction in floats is finer than an angle in double.
void setBorder(SectorBorders& borders, int k, double angle) {
  borders.c[k] = std::cos(angle);
  borders.s[k] = std::sin(angle);
  if (angle < 0.0) borders.below = k + 1;
}

SectorBorders deviceBorders(int bins) {
  SectorBorders borders{};
  borders.count = bins;
  for (int k = 0; k < bins; ++k) {
    setBorder(borders, k, borderOf(deviceFormula, bins, k + 1, -NMath::Pi, NMath::Pi));
  }
  return borders;
}

SectorBorders hostBorders() {
  const auto pi = static_cast<double>(NMath::Pi);
  SectorBorders borders{};
  borders.count = kHogBins;
  for (int k = 0; k < kHogBins; ++k) {
    setBorder(borders, k, borderOf(hostFormula, kHogBins, k + 1, 0.0f, 2.0f * NMath::Pi) - pi);
  }
  return borders;
}

TARVO_BAND void sortBand(const SectorBorders& borders, const float* gx, const float* gy, int w,
                         float* magnitude, int* sector) {
  double c[kHogBins], s[kHogBins];
  for (int k = 0; k < kHogBins; ++k) {
    c[k] = borders.c[k];
    s[k] = borders.s[k];
  }
#pragma omp simd
  for (int x = 0; x < w; ++x) magnitude[x] = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x]);
#pragma omp simd
  for (int x = 0; x < w; ++x) {
    sector[x] = SectorBorders::sectorOf(c, s, kHogBins / 2, kHogBins, gx[x], gy[x]);
  }
}

}  // namespace

SectorBorders deviceSectors(int bins) {
  static const SectorBorders usual = deviceBorders(kHogBins);
  return bins == kHogBins ? usual : deviceBorders(bins);
}

const SectorBorders& hostSectors() {
  static const SectorBorders borders = hostBorders();
  return borders;
}

void sortGradients(const float* gx, const float* gy, int w, float* magnitude, int* sector) {
  sortBand(hostSectors(), gx, gy, w, magnitude, sector);
}

}  // namespace match
