#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>

namespace match {

/// What decides the matching of two pictures, on the host: pictures of three channels, histogram fields of 15
/// planes, their sums, and the confidence of the first picture with its mean.
struct HostFeatures {
  const CTensor<float>&image1, &image2;
  CTensor<float> hog1, hog2;
  CMatrix<float> energy1, energy2, confidence;
  float meanConfidence;

  HostFeatures(const CTensor<float>& image1, const CTensor<float>& image2);
};

/// Repeats the matching in its plainest form on the caller's thread. Prints the first ten points that are
/// searched and every disagreement with the match field (planes of the pictures' size): "Error U", "Error V",
/// "Error W". It differs from HOGMatch in these points:
///  - the grid begins at 12, not at 4
///  - the gate does not truncate the confidence
///  - the backward window reaches to 4 pixels from the border, not to 12
///  - a distance is added up cell by cell, and candidates are visited row by row
///  - a second candidate at the smallest distance makes that the second distance, whatever its column
///  - the weight makes no exception for absent candidates
void crossCheck(const HostFeatures& features, const CTensor<float>& u, const CTensor<float>& v,
                const CTensor<float>& weight);

}  // namespace match
