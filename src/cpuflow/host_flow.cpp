#include <tarvo/COpticFlow.h>
#include <tarvo/NFilter.h>
#include <tarvo/exceptions.h>
#include <tarvo/solvers.h>
#include <tarvo/timers.h>

#include <algorithm>
#include <ctime>

#include "cpuflow/host_system.h"
#include "device/device.h"
#include "device/report.h"

// One level of the host flow: lagged weights on the host, linear systems on the device.

namespace {

/// Adds to the squared gradients half-way between neighbours along x (diffX) and along y (diffY) those of one
/// component of the total flow.
void addSquaredGradients(const CMatrix<float>& T, CMatrix<float>& diffX, CMatrix<float>& diffY) {
  const int w = T.sizeX(), h = T.sizeY();
  const CDerivative<float> mask(3);
  CMatrix<float> Tx(w, h), Ty(w, h);
  NFilter::filter(T, Tx, mask, 1);
  NFilter::filter(T, Ty, 1, mask);
  for (int y = 0; y < h; ++y) {
    const float *t = &T(0, y), *ty = &Ty(0, y);
    float* out = &diffX(0, y);
#pragma omp simd
    for (int x = 0; x < w - 1; ++x) {
      const float across = t[x + 1] - t[x];
      const float along = (ty[x] + ty[x + 1]) / 2.0f;
      out[x] += across * across + along * along;
    }
  }
  for (int y = 0; y < h - 1; ++y) {
    const float *t = &T(0, y), *tx = &Tx(0, y);
    float* out = &diffY(0, y);
#pragma omp simd
    for (int x = 0; x < w; ++x) {
      const float across = (tx[x] + tx[x + w]) / 2.0f;
      const float along = t[x + w] - t[x];
      out[x] += across * across + along * along;
    }
  }
}

void requireSize(const CTensor<float>& tensor, const CTensor<float>& image, int planes) {
  if (tensor.sizeX() != image.sizeX() || tensor.sizeY() != image.sizeY() || tensor.sizeZ() < planes) {
    throw ETensorIncompatibleSize(image.sizeX(), image.sizeY(), tensor.sizeX(), tensor.sizeY());
  }
}

void requireSize(const CMatrix<float>& plane, const CTensor<float>& image) {
  if (plane.sizeX() != image.sizeX() || plane.sizeY() != image.sizeY()) {
    throw ETensorIncompatibleSize(image.sizeX(), image.sizeY(), plane.sizeX(), plane.sizeY());
  }
}

}  // namespace

void COpticFlow::diffusivity(CTensor<float>& flow, CTensor<float>& increment, CMatrix<float>& diffX,
                             CMatrix<float>& diffY, CMatrix<float>* extraTerm, float extraWeight) {
  requireSize(increment, flow, 2);
  requireSize(flow, flow, 2);
  requireSize(diffX, flow);
  requireSize(diffY, flow);
  if (extraTerm != nullptr) requireSize(*extraTerm, flow);
  const int n = diffX.size();
  std::fill_n(diffX.data(), n, 0.0f);
  std::fill_n(diffY.data(), n, 0.0f);
  CMatrix<float> total(flow.sizeX(), flow.sizeY());
  for (int component = 0; component < 2; ++component) {
    const float *own = &flow(0, 0, component), *added = &increment(0, 0, component);
    for (int i = 0; i < n; ++i) total.data()[i] = own[i] + added[i];
    addSquaredGradients(total, diffX, diffY);
  }
  if (extraTerm != nullptr) {
    report::print("DF\n");
    const float* m = extraTerm->data();
    for (CMatrix<float>* plane : {&diffX, &diffY}) {
      for (int i = 0; i < n; ++i) plane->data()[i] += extraWeight * (m[i] * m[i]);
    }
  }
  for (CMatrix<float>* plane : {&diffX, &diffY}) {
    cpuflow::robustWeights(plane->data(), n);
  }
}

void COpticFlow::nonlinearIteration(CTensor<float>& image1, CTensor<float>& warped2, CMatrix<float>& gconf,
                                    CTensor<float>& matchU, CTensor<float>& matchV,
                                    CTensor<float>& matchWeightIn, CTensor<float>& flow,
                                    CMatrix<float>* extraTerm, float alpha, float beta, float gamma,
                                    float extraWeight, int fixedPointIterations, int solverIterations,
                                    float omega, int /*level*/) {
  requireSize(warped2, image1, image1.sizeZ());
  requireSize(gconf, image1);
  for (CTensor<float>* match : {&matchU, &matchV, &matchWeightIn}) {
    requireSize(*match, image1, matchU.sizeZ());
  }
  requireSize(flow, image1, 2);
  if (extraTerm != nullptr) requireSize(*extraTerm, image1);
  const device::Entry entry;
  const std::clock_t start = std::clock();
  const int w = image1.sizeX(), h = image1.sizeY();
  report::print("%dx%d \n", w, h);
  const cpuflow::DataTerms data(image1, warped2, gconf);
  const cpuflow::MatchPlanes matches{matchU, matchV, matchWeightIn};
  const float a = 1.0f / alpha;
  CTensor<float> increment(w, h, 2, 0.0f);
  CMatrix<float> diffX(w, h), diffY(w, h);
  cpuflow::HostSystem system(w, h);
  for (int iteration = 0; iteration < fixedPointIterations; ++iteration) {
    diffusivity(flow, increment, diffX, diffY, extraTerm, extraWeight);
    system.assemble({data, matches, flow, increment, diffX, diffY, {a, a * gamma, a * beta}});
    SORIterations(system.matrix.data(), system.rhs.data(), &increment(0, 0, 0), &increment(0, 0, 1),
                  increment.data(), h, w, omega, solverIterations);
  }
  setup_time += static_cast<double>(std::clock() - start);
  for (int i = 0; i < increment.size(); ++i) flow.data()[i] += increment.data()[i];
}
