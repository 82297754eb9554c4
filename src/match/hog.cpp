#include <tarvo/filters.h>
#include <tarvo/hog.h>

#include <algorithm>
#include <vector>

#include "device/cpu/form.h"
#include "device/launch.h"
#include "device/memory.h"
#include "device/report.h"
#include "match/hog_bands.h"
#include "match/hog_internal.h"
#include "match/hog_kernels.h"
#include "match/unit.h"

namespace {

using match::kUnit;

/// The field by the plain kernels.
void computeWithKernels(const float* image, float* hog, int channels, int bins, int h, int w, int p) {
  float mean[match::kMeanTaps];
  std::fill(mean, mean + match::kMeanTaps, match::kMeanTap);
  const std::size_t n = device::planeFloats(h, p);
  const std::size_t field = device::planeFloats(h, p, bins);
  device::Buffer gx, gy, accumulator;
  TARVO_CALL(gx.allocate(n));
  TARVO_CALL(gy.allocate(n));
  TARVO_CALL(accumulator.allocate(field));
  TARVO_CALL(device::clear(accumulator.get(), field * sizeof(float)));
  for (int c = 0; c < channels; ++c) {
    const float* channel = image + static_cast<std::size_t>(c) * n;
    gConvolveX(gx.get(), channel, h, w, p, match::kDerivativeTaps, 3);
    gConvolveY(gy.get(), channel, h, w, p, match::kDerivativeTaps, 3);
    computeHOG_kernel(gx.get(), gy.get(), accumulator.get(), bins, h, w, p);
  }
  TARVO_LAUNCHED("compute hog only");
  zFilter_kernel(accumulator.get(), hog, bins, kernels::kSectorTaps, 3, h, w, p);
  TARVO_LAUNCHED("zfilter hog only");
  gConvolveX(accumulator.get(), hog, h * bins, w, p, mean, match::kMeanTaps);  // rows of all planes at once
  for (int b = 0; b < bins; ++b) {
    const std::size_t plane = static_cast<std::size_t>(b) * n;
    gConvolveY(hog + plane, accumulator.get() + plane, h, w, p, mean, match::kMeanTaps);
  }
  TARVO_LAUNCHED("box filter only");
  TARVO_CALL(gx.release());
  TARVO_CALL(gy.release());
  TARVO_CALL(accumulator.release());
}

void computeOnCpu(const float* image, float* hog, int channels, int h, int w, int p) {
  const match::HogBands bands(image, hog, channels, h, w, p);
  device::Buffer scratch;
  TARVO_CALL(scratch.allocate(bands.scratchFloats()));
  bands.run(scratch.get());
  TARVO_CALL(scratch.release());
}

device::Code checkBins(int bins) {
  return bins >= 1 && bins <= match::SectorBorders::kMost ? device::kSuccess : device::kInvalidValue;
}

}  // namespace

void gComputeHOG(const float* image, float* hog, int channels, int bins, int height, int width, int pitch) {
  if (bins == kHogBins &&
      device::cpu::runs([&] { computeOnCpu(image, hog, channels, height, width, pitch); })) {
    TARVO_LAUNCHED("box filter only");
  } else {
    computeWithKernels(image, hog, channels, bins, height, width, pitch);
  }
}

void computeHOG_kernel(const float* gx, const float* gy, float* accumulator, int bins, int height, int width,
                       int pitch) {
  TARVO_CALL(checkBins(bins));
  launch(kernels::computeHOG_kernel{match::deviceSectors(bins), gx, gy, accumulator, bins, height, width,
                                    pitch});
}

void zFilter_kernel(const float* accumulator, float* hog, int bins, const float*, int, int height, int width,
                    int pitch) {
  launch(kernels::zFilter_kernel{accumulator, hog, bins, height, width, pitch});
}

void match::computeHOGHostArray(const float* image, float* hog, int channels, int width, int height) {
  device::Buffer source, field;
  int p = 0;
  TARVO_CALL(source.upload(&p, image, height, width, channels));
  const std::size_t floats = device::planeFloats(height, p, kHogBins);
  TARVO_CALL(field.allocate(floats));
  TARVO_CALL(device::clear(field.get(), floats * sizeof(float)));
  gComputeHOG(source.get(), field.get(), channels, kHogBins, height, width, p);
  report::print("hog end\n");
  TARVO_CALL(
      device::copyPlanes(hog, width, field.get(), p, height, width, kHogBins, device::Direction::ToHost));
  TARVO_CALL(source.release());
  TARVO_CALL(field.release());
}

void ComputeHOGGPU(const float* image, float* hog, int channels, int width, int height) {
  const device::Entry entry;
  match::computeHOGHostArray(image, hog, channels, width, height);
}

namespace {

/// Rows of a plane of width w summed over the window of half-width r around y, into sums.
void sumRows(const float* plane, int h, int w, int y, int r, float* sums) {
  std::fill(sums, sums + w, 0.0f);
  const int last = std::min(h - 1, y + r);
  for (int row = std::max(0, y - r); row <= last; ++row) {
    const float* in = plane + static_cast<std::size_t>(row) * static_cast<std::size_t>(w);
    for (int x = 0; x < w; ++x) sums[x] += in[x];
  }
}

}  // namespace

void boxFilterCPU(float* dst, const float* src, int height, int width, int pitch, int size) {
  const std::size_t w = static_cast<std::size_t>(width);
  std::vector<float> in(static_cast<std::size_t>(height) * w), out(in.size()), sums(w);
  TARVO_CALL(device::copyPlanes(in.data(), width, src, pitch, height, width, 1, device::Direction::ToHost));
  const int r = std::min(std::max(size / 2, 0), std::max(height, width));
  for (int y = 0; y < height; ++y) {
    sumRows(in.data(), height, width, y, r, sums.data());
    const int rows = std::min(height - 1, y + r) - std::max(0, y - r) + 1;
    for (int x = 0; x < width; ++x) {
      const int first = std::max(0, x - r), last = std::min(width - 1, x + r);
      float sum = 0.0f;
      for (int i = first; i <= last; ++i) sum += sums[static_cast<std::size_t>(i)];
      out[static_cast<std::size_t>(y) * w + static_cast<std::size_t>(x)] =
          sum / static_cast<float>(static_cast<long>(rows) * (last - first + 1));
    }
  }
  TARVO_CALL(
      device::copyPlanes(dst, pitch, out.data(), width, height, width, 1, device::Direction::ToDevice));
}
