#include <tarvo/filters.h>
#include <tarvo/hog.h>
#include <tarvo/picture.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "device/cpu/band.h"
#include "device/cpu/team.h"
#include "device/launch.h"
#include "device/memory.h"
#include "match/confidence_kernels.h"
#include "match/confidence_rows.cuh"
#include "match/hog_bands.h"
#include "match/hog_internal.h"
#include "match/unit.h"

namespace {

using match::kUnit;
constexpr float kTensorSigma = 4.0f;  // pixels

/// Row sums of rows y0 ... y1 - 1: the lanes side by side, then halving.
TARVO_BAND void sumRowsBand(const float* plane, float* rowSums, int w, int p, int y0, int y1) {
  constexpr int kLanes = match::kRowLanes;
  for (int y = y0; y < y1; ++y) {
    const float* const row = plane + static_cast<std::ptrdiff_t>(y) * p;
    float lanes[kLanes] = {};
    for (int start = 0; start < w; start += kLanes) {
      const int count = std::min(kLanes, w - start);
#pragma omp simd
      for (int j = 0; j < count; ++j) lanes[j] += row[start + j];
    }
    for (int half = kLanes / 2; half > 0; half /= 2) {
#pragma omp simd
      for (int j = 0; j < half; ++j) lanes[j] += lanes[j + half];
    }
    rowSums[y] = lanes[0];
  }
}

/// Downloads one plane and releases it.
void downloadPlane(float* to, device::Buffer& from, int h, int w, int p) {
  TARVO_CALL(device::copyPlanes(to, w, from.get(), p, h, w, 1, device::Direction::ToHost));
  TARVO_CALL(from.release());
}

}  // namespace

void sqrAddMag_kernel(const float* dx, const float* dy, float* jxx, float* jxy, float* jyy, float* magnitude,
                      int height, int width, int pitch, int channels) {
  if (channels == kPictureChannels) {
    launch(kernels::sqrAddMag_kernel<kPictureChannels>{dx, dy, jxx, jxy, jyy, magnitude, height, width, pitch,
                                                       channels});
  } else {
    launch(kernels::sqrAddMag_kernel<0>{dx, dy, jxx, jxy, jyy, magnitude, height, width, pitch, channels});
  }
}

void computeConfidence_kernel(const float* jxx, const float* jxy, const float* jyy, const float* magnitude,
                              float* confidence, int height, int width, int pitch) {
  launch(kernels::computeConfidence_kernel{jxx, jxy, jyy, magnitude, confidence, height, width, pitch});
}

void computeEnergy_kernel(const float* hog, float* energy, int height, int width, int pitch, int bins) {
  if (bins == kHogBins) {
    launch(kernels::computeEnergy_kernel<kHogBins>{hog, energy, height, width, pitch, bins});
  } else {
    launch(kernels::computeEnergy_kernel<0>{hog, energy, height, width, pitch, bins});
  }
}

void compute2DSum_kernel(const float* plane, float* rowSums, int height, int width, int pitch) {
  launch(kernels::compute2DSum_kernel{plane, rowSums, height, width, pitch}, [&] {
    device::cpu::forBands(height, width,
                          [&](int y0, int y1) { sumRowsBand(plane, rowSums, width, pitch, y0, y1); });
  });
}

void gComputeConfidence(const float* image, float* confidence, int height, int width, int pitch,
                        int channels) {
  const std::size_t n = device::planeFloats(height, pitch);
  device::Buffer dx, dy, jxx, jxy, jyy, magnitude;
  TARVO_CALL(dx.allocate(device::planeFloats(height, pitch, channels)));
  TARVO_CALL(dy.allocate(device::planeFloats(height, pitch, channels)));
  for (device::Buffer* plane : {&jxx, &jxy, &jyy, &magnitude}) TARVO_CALL(plane->allocate(n));

  for (int c = 0; c < channels; ++c) {
    const std::size_t at = static_cast<std::size_t>(c) * n;
    gConvolveX(dx.get() + at, image + at, height, width, pitch, match::kDerivativeTaps, 3);
    gConvolveY(dy.get() + at, image + at, height, width, pitch, match::kDerivativeTaps, 3);
  }
  sqrAddMag_kernel(dx.get(), dy.get(), jxx.get(), jxy.get(), jyy.get(), magnitude.get(), height, width, pitch,
                   channels);
  for (device::Buffer* plane : {&jxx, &jxy, &jyy}) {
    gGaussianFilter(plane->get(), plane->get(), height, width, pitch, kTensorSigma);
  }
  computeConfidence_kernel(jxx.get(), jxy.get(), jyy.get(), magnitude.get(), confidence, height, width,
                           pitch);
  for (device::Buffer* plane : {&dx, &dy, &jxx, &jxy, &jyy, &magnitude}) TARVO_CALL(plane->release());
  TARVO_LAUNCHED("compute conf over");
}

float compute2DSum_step2(const float* rowSums, int count) {
  std::vector<float> rows(static_cast<std::size_t>(count));
  TARVO_CALL(device::copyFloats(rows.data(), rowSums, rows.size(), device::Direction::ToHost));
  float sum = 0.0f;
  for (const float row : rows) sum += row;
  return sum;
}

float gCompute2DSum(const float* plane, int height, int width, int pitch) {
  device::Buffer rowSums;
  TARVO_CALL(rowSums.allocate(static_cast<std::size_t>(height)));
  compute2DSum_kernel(plane, rowSums.get(), height, width, pitch);
  const float sum = compute2DSum_step2(rowSums.get(), height);
  TARVO_CALL(rowSums.release());
  TARVO_LAUNCHED("2dsum");
  return sum;
}

namespace match {

void computeConfidenceHostArray(const float* image, float* confidence, int height, int width, int channels) {
  device::Buffer source, result;
  int p = 0;
  TARVO_CALL(source.upload(&p, image, height, width, channels));
  const std::size_t n = device::planeFloats(height, p);
  TARVO_CALL(result.allocate(n));
  TARVO_CALL(device::clear(result.get(), n * sizeof(float)));
  gComputeConfidence(source.get(), result.get(), height, width, p, channels);
  downloadPlane(confidence, result, height, width, p);
  TARVO_CALL(source.release());
}

void computeEnergyHostArray(const float* hog, float* energy, int height, int width, int bins) {
  device::Buffer field, result;
  int p = 0;
  TARVO_CALL(field.upload(&p, hog, height, width, bins));
  TARVO_CALL(result.allocate(device::planeFloats(height, p)));
  computeEnergy_kernel(field.get(), result.get(), height, width, p, bins);
  TARVO_LAUNCHED("energy");
  downloadPlane(energy, result, height, width, p);
  TARVO_CALL(field.release());
}

float compute2DSumHostArray(const float* plane, int height, int width) {
  device::Buffer source;
  int p = 0;
  TARVO_CALL(source.upload(&p, plane, height, width, 1));
  const float sum = gCompute2DSum(source.get(), height, width, p);
  TARVO_CALL(source.release());
  return sum;
}

}  // namespace match

void computeConfidenceGPU(const float* image, const float*, float* confidence, int height, int width,
                          int channels) {
  const device::Entry entry;
  match::computeConfidenceHostArray(image, confidence, height, width, channels);
}

void computeEnergy(const float* hog, float* energy, int height, int width, int bins) {
  const device::Entry entry;
  match::computeEnergyHostArray(hog, energy, height, width, bins);
}

float compute2DSum(const float* plane, int height, int width) {
  const device::Entry entry;
  return match::compute2DSumHostArray(plane, height, width);
}
