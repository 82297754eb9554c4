#include "variational/pyramid/picture_levels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "device/cpu/form.h"
#include "device/cpu/launch.h"
#include "device/launch.h"
#include "variational/pyramid/pyramid_kernels.h"
#include "variational/units.h"

// One pass over the pictures for all six planes and all levels of a batch: for every level in turn the target
// pixels whose footprints begin in a strip of the source, so that the rows they need are still in a core's
// cache. A sample is a vector of lanes, one for each plane, so that its area is computed once and nothing is
// gathered. Four target pixels with footprints of equal width are summed side by side in registers; within a
// row of a footprint all samples but the first and the last have the same area. Per source pixel and level 24
// bytes are read and about (r + 1)^2 / r^2 fused steps of all lanes done, r being the ratio of the sizes.

namespace variational {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

constexpr int kChannels = 3;  // of a picture
constexpr int kPlanes = 2 * kChannels;
constexpr int kLanes = 8;  // of a vector: the planes of a pixel, and two that read beyond it and mean nothing

struct SourcePlanes {
  const float* planes[kPlanes];
  int h, w, p;
};

TARVO_BAND void interleaveBand(SourcePlanes in, float* out, int y0, int y1) {
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
  struct Open {
    std::size_t group;
    int used;  // columns in it
  };
  std::vector<Open> open;  // the last group of every width, by samples
  std::vector<Group> groups;
  for (int x = 0; x < outW; ++x) {
    const kernels::Footprint footprint(x, scale, inW);
    const int samples = footprint.last - footprint.first + 1;
    if (open.size() <= static_cast<std::size_t>(samples)) open.resize(samples + 1U, {0, kGroup});
    Open& last = open[static_cast<std::size_t>(samples)];
    if (last.used == kGroup) {
      last = {groups.size(), 0};
      groups.push_back({});
      groups.back().samples = samples;
    }
    for (int k = last.used; k < kGroup; ++k) groups[last.group].set(k, x, footprint);
    ++last.used;
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

/// The target rows whose footprints begin in source rows y0 ... y1 - 1. line: scratch of kLanes floats for
/// every column.
TARVO_BAND void averageBand(Job job, float* line, int y0, int y1) {
  const float sx = static_cast<float>(job.inW) / static_cast<float>(job.outW);
  const float sy = static_cast<float>(job.inH) / static_cast<float>(job.outH);
  for (int y = std::max(0, static_cast<int>(static_cast<float>(y0) / sy) - 1); y < job.outH; ++y) {
    const kernels::Footprint rows(y, sy, job.inH);
    if (rows.first < y0) continue;
    if (rows.first >= y1) break;
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

/// The rows y0 ... y1 - 1 of the source for all levels, strip by strip.
void averageStrips(const std::vector<Job>& jobs, float* line, int y0, int y1) {
  constexpr int kStripFloats = 32768;  // 128 KiB
  const int rows = std::max(1, kStripFloats / (jobs.front().inW * kPlanes));
  for (int y = y0; y < y1; y += rows) {
    for (const Job& job : jobs) averageBand(job, line, y, std::min(y1, y + rows));
  }
}

}  // namespace

PictureLevels::PictureLevels(const float* image1, const float* image2, int h, int w, int p,
                             std::vector<Size> levels)
    : image1_(image1), image2_(image2), h_(h), w_(w), p_(p), levels_(std::move(levels)) {
  for (std::size_t first = 0; first < levels_.size(); first = batchEnd(first)) {
    batchFloats_ = std::max(batchFloats_, offsetOf(first, batchEnd(first), 0));
  }
}

std::size_t PictureLevels::interleavedFloats() const {
  constexpr int kBeyond = kLanes - kPlanes;  // floats read behind the last pixel
  return device::planeFloats(h_, w_, kPlanes) + kBeyond;
}

std::size_t PictureLevels::floats() const {
  if (batchFloats_ == 0) return 0;
  return batchFloats_ + (device::onCuda() ? 0 : interleavedFloats());
}

void PictureLevels::interleave() {
  TARVO_CALL(interleaved_.allocate(interleavedFloats()));
  SourcePlanes pictures{{}, h_, w_, p_};
  for (int c = 0; c < kChannels; ++c) {
    pictures.planes[c] = image1_ + device::planeFloats(h_, p_, c);
    pictures.planes[kChannels + c] = image2_ + device::planeFloats(h_, p_, c);
  }
  device::cpu::forBands(h_, w_,
                        [&](int y0, int y1) { interleaveBand(pictures, interleaved_.get(), y0, y1); });
}

std::size_t PictureLevels::batchEnd(std::size_t first) const {
  // As many as have half the pixels of the source: then a batch that the caches lose before it is used costs
  // no more than the reading of the source that it saves.
  const long most = static_cast<long>(h_) * w_ / 2;
  long pixels = 0;
  std::size_t end = first;
  while (end < levels_.size()) {
    pixels += static_cast<long>(levels_[end].h) * levels_[end].w;
    if (end > first && pixels > most) break;
    ++end;
  }
  return end;
}

std::size_t PictureLevels::offsetOf(std::size_t first, std::size_t index, int picture) const {
  // Between stacks: whole lines of either device, and stacks rarely start at one cache set.
  constexpr std::size_t kApart = 9 * 32;
  const auto stack = [](const Size& level) {
    return device::planeFloats(level.h, level.p, kChannels) + kApart;
  };
  std::size_t offset = 0;
  for (std::size_t k = first; k < index; ++k) offset += 2 * stack(levels_[k]);
  return picture == 0 ? offset : offset + stack(levels_[index]);
}

PictureLevels::Pictures PictureLevels::next() {
  const std::size_t index = next_++;
  if (index == end_) {
    first_ = index;
    end_ = batchEnd(index);
    build();
  }
  return {batch_.get() + offsetOf(first_, index, 0), batch_.get() + offsetOf(first_, index, 1)};
}

void PictureLevels::build() {
  if (batch_.get() == nullptr) TARVO_CALL(batch_.allocate(batchFloats_));
  if (device::cpu::runs([this] { buildOnCpu(); })) return;
  for (std::size_t k = first_; k < end_; ++k) {
    const Size& level = levels_[k];
    launch(kernels::DownsamplePictures{image1_, image2_, h_, w_, p_, batch_.get() + offsetOf(first_, k, 0),
                                       batch_.get() + offsetOf(first_, k, 1), level.h, level.w, level.p,
                                       kPlanes * level.h});
  }
}

void PictureLevels::buildOnCpu() {
  if (interleaved_.get() == nullptr) interleave();
  std::vector<std::vector<Group>> groups;
  std::vector<Job> jobs;
  int widest = 0;
  for (std::size_t k = first_; k < end_; ++k) {
    const Size& level = levels_[k];
    groups.push_back(groupColumns(level.w, w_));
    jobs.push_back({interleaved_.get(),
                    h_,
                    w_,
                    {},
                    level.h,
                    level.w,
                    level.p,
                    groups.back().data(),
                    static_cast<std::ptrdiff_t>(groups.back().size())});
    for (int plane = 0; plane < kPlanes; ++plane) {
      jobs.back().out[plane] = batch_.get() + offsetOf(first_, k, plane / kChannels) +
                               device::planeFloats(level.h, level.p, plane % kChannels);
    }
    widest = std::max(widest, level.w);
  }
  // A row of the source is averaged for every level.
  const int share =
      static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(w_) * jobs.size(), 1U << 30U));
  // A line of scratch for every band, since a band must not allocate.
  const int rows = device::cpu::rowsPerChunk(h_, share);
  const std::ptrdiff_t line = static_cast<std::ptrdiff_t>(widest) * kLanes;
  std::vector<float> lines(static_cast<std::size_t>((h_ + rows - 1) / rows * line));
  device::cpu::forBandsOf(
      rows, h_, [&](int y0, int y1) { averageStrips(jobs, lines.data() + y0 / rows * line, y0, y1); });
  if (end_ == levels_.size()) TARVO_CALL(interleaved_.release());
}

void PictureLevels::release() {
  TARVO_CALL(interleaved_.release());
  TARVO_CALL(batch_.release());
}

void averagePictures(const float* image1, const float* image2, int h, int w, int p,
                     const std::vector<PictureLevels::Size>& levels, const std::vector<float*>& out) {
  PictureLevels pyramid(image1, image2, h, w, p, levels);
  for (std::size_t k = 0; k < levels.size(); ++k) {
    const PictureLevels::Size& level = levels[k];
    const PictureLevels::Pictures pictures = pyramid.next();
    const auto copy = [&](float* to, const float* from) {
      TARVO_CALL(device::copyPlanes(to, level.p, from, level.p, level.h, level.w, kChannels,
                                    device::Direction::OnDevice));
    };
    copy(out[k], pictures.first);
    copy(out[k] + device::planeFloats(level.h, level.p, kChannels), pictures.second);
  }
  pyramid.release();
}

}  // namespace variational
