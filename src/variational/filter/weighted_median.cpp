#include "variational/filter/weighted_median.h"

#include "device/launch.h"
#include "variational/filter/weighted_median_cpu.h"
#include "variational/filter/weighted_median_kernels.h"
#include "variational/units.h"

namespace {
constexpr const char* kUnit = units::kFilters;
}

void variational::weightedMedian(float* outU, float* outV, const float* u, const float* v,
                                 const float* picture, const float* valid, int h, int w, int p, int radius,
                                 float sigmaColour, float sigmaDistance) {
  const kernels::WeightedMedian median{
      u, v, picture, valid, outU, outV, h, w, p, radius, {sigmaColour, sigmaDistance}};
  launch(median, [&] { weightedMedianOnCpu(median); });
  TARVO_LAUNCHED("weighted median");
}
