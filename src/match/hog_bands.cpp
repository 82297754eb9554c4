#include "match/hog_bands.h"

#include <tarvo/hog.h>

#include <algorithm>
#include <cmath>

#include "device/cpu/band.h"
#include "device/cpu/team.h"
#include "match/hog_kernels.h"
#include "match/hog_sectors.h"

// The steps of the field, row by row and with the operations of the plain kernels in their order:
//   gradients and sectors of the channels, added up in 15 lines; smoothing over the sectors; mean along x
//   into a ring of seven rows; mean along y of the ring into the field.
// Per pixel 1 float per channel is read from memory and 15 are written; everything between stays in the
// caches (15 lines of a row: 38 KB at 640 pixels; the ring: 270 KB). The three rows above and below a band
// are computed again.

namespace match {
namespace {

constexpr int kReach = kMeanTaps / 2;
constexpr int kAlign = 16;
/// Fewest rows of a band if all threads have one: the repeated rows then cost at most a quarter.
constexpr int kFewestRows = 24;

/// Scratch of one band: `line` floats per row of one plane, with room for the columns beyond both borders.
struct Lines {
  int line;
  float *gx, *gy, *magnitude;
  int* sector;
  float *sums, *smooth;  ///< kHogBins lines each
  float* ring;           ///< kMeanTaps times kHogBins lines

  static constexpr int kLines = 4 + 2 * kHogBins + kMeanTaps * kHogBins;

  Lines(float* scratch, int w) : line(lineFloats(w)) {
    const auto take = [&](int lines) {
      float* const first = scratch;
      scratch += static_cast<std::ptrdiff_t>(lines) * line;
      return first;
    };
    gx = take(1);
    gy = take(1);
    magnitude = take(1);
    sector = reinterpret_cast<int*>(take(1));
    sums = take(kHogBins);
    smooth = take(kHogBins);
    ring = take(kMeanTaps * kHogBins);
  }

  static int lineFloats(int w) {
    // An odd multiple of the alignment, so that the lines do not map to the same cache sets.
    const int blocks = (w + 2 * kReach + kAlign - 1) / kAlign;
    return (blocks | 1) * kAlign;
  }
};

struct Picture {
  const float* image;
  float* hog;
  int channels, h, w, p;
};

TARVO_HOST_DEVICE float difference(float before, float at, float after) {
  float sum = 0.0f;
  sum = fmaf(kDerivativeTaps[0], before, sum);
  sum = fmaf(kDerivativeTaps[1], at, sum);
  return fmaf(kDerivativeTaps[2], after, sum);
}

/// Gradients of row y of one channel, borders repeated.
TARVO_HOST_DEVICE void gradients(const Lines& lines, const float* channel, int y, int h, int w, int p) {
  const float* const row = channel + static_cast<std::ptrdiff_t>(y) * p;
  const float* const above = y > 0 ? row - p : row;
  const float* const below = y < h - 1 ? row + p : row;
  float* const gx = lines.gx;
  float* const gy = lines.gy;
  gx[0] = difference(row[0], row[0], row[std::min(1, w - 1)]);
#pragma omp simd
  for (int x = 1; x < w - 1; ++x) gx[x] = difference(row[x - 1], row[x], row[x + 1]);
  gx[w - 1] = difference(row[std::max(0, w - 2)], row[w - 1], row[w - 1]);
#pragma omp simd
  for (int x = 0; x < w; ++x) gy[x] = difference(above[x], row[x], below[x]);
}

/// Magnitudes and sectors of the gradients; a zero gradient has magnitude 0, which adds nothing.
TARVO_HOST_DEVICE void sortLine(const Lines& lines, const double* c, const double* s, int w) {
  const float* const gx = lines.gx;
  const float* const gy = lines.gy;
  float* const magnitude = lines.magnitude;
  int* const sector = lines.sector;
#pragma omp simd
  for (int x = 0; x < w; ++x) magnitude[x] = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x]);
#pragma omp simd
  for (int x = 0; x < w; ++x) {
    sector[x] = SectorBorders::sectorOf(c, s, kHogBins / 2, kHogBins, gx[x], gy[x]);
  }
}

/// Smoothing over the sectors, and the border columns repeated.
TARVO_HOST_DEVICE void smoothLine(const Lines& lines, int w) {
  for (int b = 0; b < kHogBins; ++b) {
    const float* const before =
        lines.sums + static_cast<std::ptrdiff_t>((b + kHogBins - 1) % kHogBins) * lines.line;
    const float* const at = lines.sums + static_cast<std::ptrdiff_t>(b) * lines.line;
    const float* const after = lines.sums + static_cast<std::ptrdiff_t>((b + 1) % kHogBins) * lines.line;
    float* const out = lines.smooth + static_cast<std::ptrdiff_t>(b) * lines.line;
#pragma omp simd
    for (int x = 0; x < w; ++x) out[kReach + x] = kernels::smoothSectors(before[x], at[x], after[x]);
    for (int i = 0; i < kReach; ++i) {
      out[i] = out[kReach];
      out[kReach + w + i] = out[kReach + w - 1];
    }
  }
}

/// Row y up to the mean along x.
TARVO_HOST_DEVICE void computeLine(const Lines& lines, const Picture& a, const double* c, const double* s,
                                   int y) {
  const int w = a.w;
  const std::ptrdiff_t line = lines.line;
  std::fill(lines.sums, lines.sums + kHogBins * line, 0.0f);
  for (int channel = 0; channel < a.channels; ++channel) {
    gradients(lines, a.image + static_cast<std::ptrdiff_t>(channel) * a.h * a.p, y, a.h, w, a.p);
    sortLine(lines, c, s, w);
    for (int x = 0; x < w; ++x) lines.sums[lines.sector[x] * line + x] += lines.magnitude[x];
  }
  smoothLine(lines, w);
  float* const row = lines.ring + (y % kMeanTaps) * kHogBins * line;
  for (int b = 0; b < kHogBins; ++b) {
    const float* const in = lines.smooth + b * line;
    float* const out = row + b * line;
#pragma omp simd
    for (int x = 0; x < w; ++x) {
      float sum = 0.0f;
      for (int i = 0; i < kMeanTaps; ++i) sum = fmaf(kMeanTap, in[x + i], sum);
      out[x] = sum;
    }
  }
}

/// Row y of the field from the ring.
TARVO_HOST_DEVICE void meanAlongY(const Lines& lines, const Picture& a, int y) {
  const int w = a.w;
  for (int b = 0; b < kHogBins; ++b) {
    const float* in[kMeanTaps];
    for (int i = 0; i < kMeanTaps; ++i) {
      const int row = std::min(std::max(y - kReach + i, 0), a.h - 1) % kMeanTaps;
      in[i] = lines.ring + (row * kHogBins + b) * static_cast<std::ptrdiff_t>(lines.line);
    }
    float* const out = a.hog + (static_cast<std::ptrdiff_t>(b) * a.h + y) * a.p;
#pragma omp simd
    for (int x = 0; x < w; ++x) {
      float sum = 0.0f;
      for (int i = 0; i < kMeanTaps; ++i) sum = fmaf(kMeanTap, in[i][x], sum);
      out[x] = sum;
    }
  }
}

TARVO_BAND void hogBand(Picture a, const SectorBorders& borders, float* scratch, int y0, int y1) {
  const Lines lines(scratch, a.w);
  double c[kHogBins], s[kHogBins];
  for (int k = 0; k < kHogBins; ++k) {
    c[k] = borders.c[k];
    s[k] = borders.s[k];
  }
  int next = std::max(0, y0 - kReach);
  for (int y = y0; y < y1; ++y) {
    for (const int last = std::min(a.h - 1, y + kReach); next <= last; ++next)
      computeLine(lines, a, c, s, next);
    meanAlongY(lines, a, y);
  }
}

}  // namespace

HogBands::HogBands(const float* image, float* hog, int channels, int h, int w, int p)
    : image_(image),
      hog_(hog),
      channels_(channels),
      h_(h),
      w_(w),
      p_(p),
      rows_(std::max(device::cpu::rowsPerChunk(h, w), kFewestRows)) {}

std::size_t HogBands::scratchFloats() const {
  const int bands = (h_ + rows_ - 1) / rows_;
  return static_cast<std::size_t>(bands) * Lines::kLines * static_cast<std::size_t>(Lines::lineFloats(w_));
}

void HogBands::run(float* scratch) const {
  const Picture picture{image_, hog_, channels_, h_, w_, p_};
  const SectorBorders borders = deviceSectors(kHogBins);
  const std::ptrdiff_t floats = static_cast<std::ptrdiff_t>(Lines::kLines) * Lines::lineFloats(w_);
  device::cpu::forBandsOf(
      rows_, h_, [&](int y0, int y1) { hogBand(picture, borders, scratch + y0 / rows_ * floats, y0, y1); });
}

}  // namespace match
