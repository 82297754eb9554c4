#include "gpu/picture_levels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "device/cpu/launch.h"
#include "device/launch.h"
#include "gpu/footprint_columns.h"
#include "gpu/units.h"

// One pass over the pictures for all six planes: a sample is a vector of lanes, one for each plane, so that
// the area of a sample is computed once and no sample is gathered. Per source pixel and level 32 bytes are
// read and about (r + 1)^2 / r^2 fused steps done, r the ratio of the sizes.

namespace gpu {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

constexpr int kChannels = 3;  // of a picture
constexpr int kPlanes = 2 * kChannels;
constexpr int kLanes = 8;  // floats of a pixel: the planes, and two unused ones for whole vectors

struct Pictures {
  const float* planes[kPlanes];
  int h, w, p;
};

TARVO_BAND void interleaveBand(Pictures in, float* out, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    float* row = out + static_cast<long>(y) * in.w * kLanes;
    std::fill(row, row + static_cast<long>(in.w) * kLanes, 0.0f);
    for (int plane = 0; plane < kPlanes; ++plane) {
      const float* from = in.planes[plane] + static_cast<long>(y) * in.p;
      for (int x = 0; x < in.w; ++x) row[x * kLanes + plane] = from[x];
    }
  }
}

struct Job {
  const float* in;  // interleaved
  int inH, inW;
  float* out[kPlanes];
  int outH, outW, outP;
  const Columns* columns;  // for every kSide columns of the target
};

/// Adds kSteps samples of every column, from its sample `step` on, to the sums: kLanes floats for every
/// column.
template <int kSteps>
TARVO_HOST_DEVICE void addSteps(const Columns& columns, const float* row, float rowStart, float rowEnd,
                                int step, float* sums) {
  float areas[kSteps][kSide];
  TARVO_UNROLL
  for (int j = 0; j < kSteps; ++j) {
#pragma omp simd
    for (int k = 0; k < columns.count; ++k) areas[j][k] = columns.area(k, step + j, rowStart, rowEnd);
  }
  for (int k = 0; k < columns.count; ++k) {
    const float* sample = row + static_cast<long>(columns.first[k] + step) * kLanes;
    float* sum = sums + k * kLanes;
#pragma omp simd
    for (int lane = 0; lane < kLanes; ++lane) {
      float value = sum[lane];
      TARVO_UNROLL
      for (int j = 0; j < kSteps; ++j) value = fmaf(areas[j][k], sample[j * kLanes + lane], value);
      sum[lane] = value;
    }
  }
}

/// Adds the samples that only some columns have; their list stands in for a branch that could not be
/// foretold.
TARVO_HOST_DEVICE void addWider(const Columns& columns, const float* row, float rowStart, float rowEnd,
                                float* sums) {
  for (int step = columns.least; step < columns.most; ++step) {
    for (int e = 0; e < columns.widerCount; ++e) {
      const int k = columns.wider[e];
      if (columns.first[k] + step > columns.last[k]) continue;  // never, where widths differ by one
      const float area = columns.area(k, step, rowStart, rowEnd);
      const float* sample = row + static_cast<long>(columns.first[k] + step) * kLanes;
      float* sum = sums + k * kLanes;
#pragma omp simd
      for (int lane = 0; lane < kLanes; ++lane) sum[lane] = fmaf(area, sample[lane], sum[lane]);
    }
  }
}

/// Adds one source row to the sums.
TARVO_HOST_DEVICE void addRow(const Columns& columns, const float* row, float rowStart, float rowEnd,
                              float* sums) {
  int step = 0;
  for (; step + 4 <= columns.least; step += 4) addSteps<4>(columns, row, rowStart, rowEnd, step, sums);
  if (columns.least - step == 3) addSteps<3>(columns, row, rowStart, rowEnd, step, sums);
  if (columns.least - step == 2) addSteps<2>(columns, row, rowStart, rowEnd, step, sums);
  if (columns.least - step == 1) addSteps<1>(columns, row, rowStart, rowEnd, step, sums);
  addWider(columns, row, rowStart, rowEnd, sums);
}

/// Target rows y0 ... y1 - 1, one after the other, so that the source is read in rows.
TARVO_BAND void averageBand(Job job, int y0, int y1) {
  const float sx = static_cast<float>(job.inW) / static_cast<float>(job.outW);
  const float sy = static_cast<float>(job.inH) / static_cast<float>(job.outH);
  alignas(64) float sums[kSide * kLanes];
  for (int y = y0; y < y1; ++y) {
    const kernels::Footprint rows(y, sy, job.inH);
    for (int x0 = 0; x0 < job.outW; x0 += kSide) {
      const Columns& columns = job.columns[x0 / kSide];
      std::fill(sums, sums + kSide * kLanes, 0.0f);
      for (int j = rows.first; j <= rows.last; ++j) {
        addRow(columns, job.in + static_cast<long>(j) * job.inW * kLanes, rows.start(j), rows.end(j), sums);
      }
      for (int plane = 0; plane < kPlanes; ++plane) {
        float* out = job.out[plane] + static_cast<long>(y) * job.outP + x0;
        for (int k = 0; k < columns.count; ++k) out[k] = sums[k * kLanes + plane] / (sx * sy);
      }
    }
  }
}

}  // namespace

PictureLevels::PictureLevels(const float* image1, const float* image2, int h, int w, int p)
    : image1_(image1), image2_(image2), h_(h), w_(w), p_(p) {
  if (device::onCuda()) return;
  TARVO_CALL(interleaved_.allocate(device::planeFloats(h, w, kLanes)));
  Pictures pictures{{}, h, w, p};
  for (int c = 0; c < kChannels; ++c) {
    pictures.planes[c] = image1 + device::planeFloats(h, p, c);
    pictures.planes[kChannels + c] = image2 + device::planeFloats(h, p, c);
  }
  launchCpuForm([&] {
    device::cpu::forBands(h, w,
                          [&](int y0, int y1) { interleaveBand(pictures, interleaved_.get(), y0, y1); });
  });
}

void PictureLevels::build(float* out1, float* out2, int outH, int outW, int outP) const {
  if (device::onCuda()) {
    launch(kernels::DownsamplePictures{image1_, image2_, h_, w_, p_, out1, out2, outH, outW, outP,
                                       kPlanes * outH});
    return;
  }
  std::vector<Columns> columns(static_cast<std::size_t>((outW + kSide - 1) / kSide));
  for (std::size_t k = 0; k < columns.size(); ++k) columns[k].set(static_cast<int>(k) * kSide, outW, w_);
  Job job{interleaved_.get(), h_, w_, {}, outH, outW, outP, columns.data()};
  for (int c = 0; c < kChannels; ++c) {
    job.out[c] = out1 + device::planeFloats(outH, outP, c);
    job.out[kChannels + c] = out2 + device::planeFloats(outH, outP, c);
  }
  // The work is that of the source's pixels: a target row counts as its share of them.
  const int share = static_cast<int>(std::min(static_cast<long>(h_) * w_ / outH + 1, 1L << 30));
  launchCpuForm(
      [&] { device::cpu::forBands(outH, share, [&job](int y0, int y1) { averageBand(job, y0, y1); }); });
}

void PictureLevels::release() {
  TARVO_CALL(interleaved_.release());
}

void averagePictures(const float* image1, const float* image2, int h, int w, int p, float* out1, float* out2,
                     int outH, int outW, int outP) {
  PictureLevels levels(image1, image2, h, w, p);
  levels.build(out1, out2, outH, outW, outP);
  levels.release();
}

}  // namespace gpu
