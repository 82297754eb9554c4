#include "gpu/picture_levels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <vector>

#include "device/cpu/launch.h"
#include "device/launch.h"
#include "gpu/pyramid_kernels.h"
#include "gpu/units.h"

// One pass over the pictures for all six planes: a sample is a vector of lanes, one for each plane, so that
// its area is computed once and nothing is gathered. Four target pixels with footprints of equal width are
// summed side by side in registers; within a row of a footprint all samples but the first and the last have
// the same area. Per source pixel and level 24 bytes are read and about (r + 1)^2 / r^2 fused steps of all
// lanes done, r the ratio of the sizes.

namespace gpu {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

constexpr int kChannels = 3;  // of a picture
constexpr int kPlanes = 2 * kChannels;
constexpr int kLanes = 8;  // of a vector: the planes of a pixel, and two that read beyond it and mean nothing

struct Pictures {
  const float* planes[kPlanes];
  int h, w, p;
};

TARVO_BAND void interleaveBand(Pictures in, float* out, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    float* row = out + static_cast<long>(y) * in.w * kPlanes;
    for (int plane = 0; plane < kPlanes; ++plane) {
      const float* from = in.planes[plane] + static_cast<long>(y) * in.p;
      for (int x = 0; x < in.w; ++x) row[x * kPlanes + plane] = from[x];
    }
  }
}

constexpr int kGroup = 4;  // target pixels side by side

/// Target columns with footprints of equal width; where there are fewer than kGroup, the last one repeats.
struct Group {
  int samples;                        // in a row of a footprint
  int column[kGroup];                 // of the target
  int first[kGroup];                  // sample of the source, in floats from the start of its row
  float start[kGroup], only[kGroup];  // factors of the first sample's area; `only`: where it is the last too
  float end[kGroup];                  // of the last one's

  void set(int k, int x, const kernels::Footprint& footprint) {
    column[k] = x;
    first[k] = footprint.first * kPlanes;
    start[k] = footprint.start(footprint.first);
    end[k] = footprint.end(footprint.last);
    only[k] = samples == 1 ? end[k] : 1.0f;
  }
};

/// The target columns of a level in groups.
std::vector<Group> groupColumns(int outW, int inW) {
  const float scale = static_cast<float>(inW) / static_cast<float>(outW);
  const auto footprintOf = [&](int x) { return kernels::Footprint(x, scale, inW); };
  const auto samplesOf = [&](int x) { return footprintOf(x).last - footprintOf(x).first + 1; };
  std::vector<int> order(static_cast<std::size_t>(outW));
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return samplesOf(a) < samplesOf(b); });

  std::vector<Group> groups;
  int used = kGroup;  // columns of the last group
  for (const int x : order) {
    const int samples = samplesOf(x);
    if (used == kGroup || groups.back().samples != samples) {
      groups.push_back({});
      groups.back().samples = samples;
      used = 0;
    }
    for (int k = used; k < kGroup; ++k) groups.back().set(k, x, footprintOf(x));
    ++used;
  }
  return groups;
}

struct Job {
  const float* in;  // interleaved
  int inH, inW;
  float* out[kPlanes];
  int outH, outW, outP;
  const Group* groups;
  std::ptrdiff_t groupCount;
};

/// The sums of a target pixel, plane by plane.
struct Sums {
  float lanes[kLanes];

  TARVO_HOST void add(float area, const float* sample) {
#pragma omp simd
    for (int lane = 0; lane < kLanes; ++lane) lanes[lane] = fmaf(area, sample[lane], lanes[lane]);
  }
};

/// Adds one source row, of the lengths rowStart and rowEnd, to the sums of a group. A sample's area is
/// row start * column start * row end * column end, where a factor of 1 changes nothing.
TARVO_HOST void addRow(const Group& group, const float* row, float rowStart, float rowEnd, Sums* sums) {
  const float between = rowStart * rowEnd;
  float start[kGroup], end[kGroup];
#pragma omp simd
  for (int k = 0; k < kGroup; ++k) {
    start[k] = rowStart * group.start[k] * rowEnd * group.only[k];
    end[k] = between * group.end[k];
  }
  const int last = (group.samples - 1) * kPlanes;
  TARVO_UNROLL
  for (int k = 0; k < kGroup; ++k) sums[k].add(start[k], row + group.first[k]);
  for (int at = kPlanes; at < last; at += kPlanes) {
    TARVO_UNROLL
    for (int k = 0; k < kGroup; ++k) sums[k].add(between, row + group.first[k] + at);
  }
  if (last == 0) return;
  TARVO_UNROLL
  for (int k = 0; k < kGroup; ++k) sums[k].add(end[k], row + group.first[k] + last);
}

/// Target rows y0 ... y1 - 1; line is scratch of kLanes floats for every column.
TARVO_BAND void averageBand(Job job, float* line, int y0, int y1) {
  const float sx = static_cast<float>(job.inW) / static_cast<float>(job.outW);
  const float sy = static_cast<float>(job.inH) / static_cast<float>(job.outH);
  for (int y = y0; y < y1; ++y) {
    const kernels::Footprint rows(y, sy, job.inH);
    for (std::ptrdiff_t n = 0; n < job.groupCount; ++n) {
      const Group& group = job.groups[n];
      Sums sums[kGroup] = {};
      for (int j = rows.first; j <= rows.last; ++j) {
        addRow(group, job.in + static_cast<long>(j) * job.inW * kPlanes, rows.start(j), rows.end(j), sums);
      }
      TARVO_UNROLL
      for (int k = 0; k < kGroup; ++k) std::memcpy(line + group.column[k] * kLanes, &sums[k], sizeof sums[k]);
    }
    for (int plane = 0; plane < kPlanes; ++plane) {
      float* out = job.out[plane] + static_cast<long>(y) * job.outP;
      for (int x = 0; x < job.outW; ++x) out[x] = line[x * kLanes + plane] / (sx * sy);
    }
  }
}

}  // namespace

PictureLevels::PictureLevels(const float* image1, const float* image2, int h, int w, int p)
    : image1_(image1), image2_(image2), h_(h), w_(w), p_(p) {
  if (device::onCuda()) return;
  constexpr int kBeyond = kLanes - kPlanes;  // floats read behind the last pixel
  TARVO_CALL(interleaved_.allocate(device::planeFloats(h, w, kPlanes) + kBeyond));
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
  const std::vector<Group> groups = groupColumns(outW, w_);
  Job job{interleaved_.get(),
          h_,
          w_,
          {},
          outH,
          outW,
          outP,
          groups.data(),
          static_cast<std::ptrdiff_t>(groups.size())};
  for (int c = 0; c < kChannels; ++c) {
    job.out[c] = out1 + device::planeFloats(outH, outP, c);
    job.out[kChannels + c] = out2 + device::planeFloats(outH, outP, c);
  }
  // The work is that of the source's pixels: a target row counts as its share of them.
  const int share = static_cast<int>(std::min(static_cast<long>(h_) * w_ / outH + 1, 1L << 30));
  // A line of scratch for every band, since a band must not allocate.
  const int rows = device::cpu::rowsPerChunk(outH, share);
  const std::ptrdiff_t line = static_cast<std::ptrdiff_t>(outW) * kLanes;
  std::vector<float> lines(static_cast<std::size_t>((outH + rows - 1) / rows * line));
  launchCpuForm([&] {
    device::cpu::forBands(outH, share,
                          [&](int y0, int y1) { averageBand(job, lines.data() + y0 / rows * line, y0, y1); });
  });
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
