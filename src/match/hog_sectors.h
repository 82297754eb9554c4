#pragma once

#include <cfloat>
#include <cmath>

#include "device/kernel.h"

namespace match {

/// Borders between orientation sectors, as directions. A gradient is sorted by comparing it with them instead
/// of taking its arc tangent: the result is the same on every device, and it is several times faster. The
/// borders are derived from the formula with the arc tangent, and the result is that of the formula for every
/// gradient: no direction of two floats is so close to a border that products in double cannot tell the side.
struct SectorBorders {
  static constexpr int kMost = 64;
  double c[kMost], s[kMost];  ///< cosine and sine of the smallest angle of sectors 1, 2, ... count
  int below;                  ///< how many of them lie at negative angles; they come first
  int count;                  ///< sectors; sector `count`, if the formula reaches it, is sector 0

  /// Sector of direction (gx, gy), from 0 to count - 1; 0 where a component is not a number.
  TARVO_HOST_DEVICE int sector(float gx, float gy) const { return sectorOf(c, s, below, count, gx, gy); }

  /// The same with the borders in arrays of the caller.
  TARVO_HOST_DEVICE static int sectorOf(const double* c, const double* s, int below, int count, float gx,
                                        float gy) {
    // Everything in double and without branches, so that the caller's loop runs in vector lanes of one width.
    const double infinite = beyond(gx) + beyond(gy);
    const double x = infinite > 0.0 ? direction(gx) : gx;
    const double y = infinite > 0.0 ? direction(gy) : gy;
    const double ordered = x == x ? 1.0 : 0.0;
    const double upper = y >= 0.0 ? ordered : 0.0;  // 0 to 180 degrees: above every negative border
    double passed = 0.0;
    TARVO_UNROLL
    for (int k = 0; k < below; ++k) passed += y * c[k] >= x * s[k] ? 1.0 : upper;
    TARVO_UNROLL
    for (int k = below; k < count; ++k) passed += y * c[k] >= x * s[k] ? upper : 0.0;
    const int sector = static_cast<int>(passed);
    return sector == count ? 0 : sector;
  }

 private:
  TARVO_HOST_DEVICE static double beyond(double g) { return std::fabs(g) > FLT_MAX ? 1.0 : 0.0; }

  /// Component of the direction of a gradient that has an infinite component; a not-a-number stays.
  TARVO_HOST_DEVICE static double direction(double g) {
    const double sign = g > 0.0 ? 1.0 : -1.0;
    return std::fabs(g) > FLT_MAX ? sign : 0.0 * g;
  }
};

/// Borders of the device field, sector(a) = int(double(bins * float(a + 3.1415926)) / 6.2831853) with the
/// angle a and the product rounded to float. bins from 1 to SectorBorders::kMost.
SectorBorders deviceSectors(int bins);

/// Borders of the host field, sector(a) = int(float(a + Pi) * factor) with factor = float(15 / (2 Pi)).
const SectorBorders& hostSectors();

/// Magnitudes and host sectors of a row of w gradients.
void sortGradients(const float* gx, const float* gy, int w, float* magnitude, int* sector);

}  // namespace match
