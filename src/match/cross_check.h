#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>

namespace match {

/// What the matching of two pictures is decided by, on the host: pictures of three channels, histogram fields
/// of 15 planes, their sums, and the confidence of the first picture with its mean.
struct HostFeatures {
  const CTensor<float>&image1, &image2;
  CTensor<float> hog1, hog2;
  CMatrix<float> energy1, energy2, confidence;
  float meanConfidence;

  HostFeatures(const CTensor<float>& image1, const CTensor<float>& image2);
};

/// Repeats the matching in its plainest form on the caller's thread and prints every disagreement with the
/// match field (planes of the pictures' size): "Error U", "Error V", "Error W". It differs from HOGMatch in
/// the gate, which takes the confidence as it is; the backward window, which reaches 4 pixels from the
/// border; the order in which a distance is added up (cell by cell) and candidates are visited (row by row);
/// and the weight, which makes no exception of absent candidates.
void crossCheck(const HostFeatures& features, const CTensor<float>& u, const CTensor<float>& v,
                const CTensor<float>& weight);

}  // namespace match
