#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>

#include <vector>

// The linear system of one fixed-point step of the host flow: dense planes, row by row on the caller's
// thread.

namespace cpuflow {

/// Linearised squared residual of a constancy term at every pixel, E = T11 du^2 + T22 dv^2 + T33 + 2 (T12 du
/// dv + T13 du + T23 dv): six planes.
struct MotionTensor {
  enum Plane { T11, T22, T33, T12, T13, T23, kPlanes };

  CTensor<float> planes;

  MotionTensor(int w, int h) : planes(w, h, kPlanes, 0.0f) {}
  float* row(Plane plane, int y) { return &planes(0, y, plane); }
  const float* row(Plane plane, int y) const { return &planes(0, y, plane); }
};

/// The tensors of brightness and gradient constancy, summed over the channels, each equation normalised by
/// its image gradient; zero where `valid` is zero.
struct DataTerms {
  MotionTensor brightness, gradient;

  DataTerms(const CTensor<float>& image1, const CTensor<float>& warped2, const CMatrix<float>& valid);

 private:
  void addChannel(const CTensor<float>& image1, const CTensor<float>& warped2, int channel);
};

/// Weights of the energy's terms; those of data and matches already divided by that of smoothness.
struct TermWeights {
  float data, gradient, match;
};

/// Match candidates: planes u, v and weight per candidate; weights that are not greater than 0 count as none.
struct MatchPlanes {
  const CTensor<float>&u, &v, &weight;
};

/// What holds still while one system is assembled.
struct SystemInput {
  const DataTerms& data;
  const MatchPlanes& matches;
  const CTensor<float>&flow, &increment;
  const CMatrix<float>&diffX, &diffY;
  TermWeights weights;
};

/// Twelve planes of the matrix (MatrixPlane and, behind every coupling, its copy) and two of the right-hand
/// side, as SORIterations takes them.
struct HostSystem {
  std::vector<float> matrix, rhs;

  HostSystem(int w, int h);
  void assemble(const SystemInput& in);
};

/// Replaces n squared gradients s by the smoothness weights 1 / sqrt(s + 1e-6); double precision, rounded
/// once.
void robustWeights(float* s, int n);

}  // namespace cpuflow
