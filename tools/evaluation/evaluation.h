#pragma once

#include <tarvo/CTensor.h>

#include <array>

/// Whether both components of a flow vector are numbers of magnitude below 1e9; flow files mark unknown
/// motion by greater ones.
bool isKnown(float u, float v);

/// Throws std::runtime_error unless all values of a computed flow are numbers. They are for pictures of finite
/// values, unless a weight lets a sum overflow.
void checkFinite(const CTensor<float>& flow);

/// How far a flow field is from a reference.
///
/// Pixels whose reference is unknown are left out of everything. Pixels where only the flow is unknown (not a
/// number, infinite, or 1e9 and more) are used: they count as outliers, but no end-point error or angle
/// exists there, so that the means are over the other used pixels. Means over no pixel are not-a-number.
struct Evaluation {
  /// Pixels by their true motion [pixels]: 0 to below 10, 10 to 40, above 40.
  struct Range {
    double lower, upper;
    long used;     ///< used pixels in the range
    double share;  ///< of all used pixels, 0 ... 1
    double epe;    ///< mean end-point error [pixels]
  };

  long pixels;          ///< of the picture
  long used;            ///< with a known reference
  long missing;         ///< used pixels where the flow is unknown
  double epe;           ///< mean end-point error [pixels]
  double median;        ///< of the end-point errors [pixels]
  double percentile99;  ///< 99 of 100 end-point errors are not above it [pixels]
  double angle;         ///< mean angle between (u, v, 1) of both fields [degrees]
  double outliers;  ///< share of used pixels with an error above 3 px and above 5 % of the true length, or
                    ///< missing
  std::array<Range, 3> ranges;  ///< 0-10, 10-40 and over 40 px
};

/// Compares two flow fields (width x height x 2) of the same size; sums are in double precision.
/// @throws std::invalid_argument  if the sizes differ
Evaluation evaluate(const CTensor<float>& flow, const CTensor<float>& reference);
