#include <tarvo/filters.h>

#include <algorithm>
#include <memory>

#include "device/launch.h"
#include "device/memory.h"
#include "variational/filter/filter_kernels.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kFilters;
constexpr int kMostTaps = 4096;
constexpr int kMostSmallTaps = 7;

/// A host mask made readable for kernels; holds device memory only for long masks.
class Mask {
 public:
  device::Code load(const float* host, int size) {
    if (size < 1 || size > kMostTaps) return device::kInvalidValue;
    taps_.size = size;
    if (size <= device::kInlineTaps) {
      std::copy(host, host + size, taps_.inlined);
      return device::kSuccess;
    }
    const device::Code code = memory_.allocate(static_cast<std::size_t>(size));
    if (code != device::kSuccess) return code;
    taps_.stored = memory_.get();
    return device::copyFloats(memory_.get(), host, static_cast<std::size_t>(size),
                              device::Direction::ToDevice);
  }
  device::Code release() { return memory_.release(); }
  const device::Taps& taps() const { return taps_; }

 private:
  device::Buffer memory_;
  device::Taps taps_{};
};

/// The source of a routine whose output may be its input: the input itself, or a copy of it.
class Source {
 public:
  void take(const float* out, const float* in, int h, int w, int p) {
    view_ = {in, h, w, p};
    const std::size_t floats = device::planeFloats(h, p);
    if (device::overlap(out, floats, in, floats)) copy(in, h, w, p);
  }
  void copy(const float* in, int h, int w, int p) {
    if (copy_.get() == nullptr) TARVO_CALL(copy_.allocate(device::planeFloats(h, p)));
    TARVO_CALL(device::copyPlanes(copy_.get(), p, in, p, h, w, 1, device::Direction::OnDevice));
    view_ = {copy_.get(), h, w, p};
  }
  void release() { TARVO_CALL(copy_.release()); }
  const device::View& view() const { return view_; }

 private:
  device::Buffer copy_;
  device::View view_{};
};

/// Rows y0 ... y1 - 1 of a filter with any number of taps. Tap by tap over a whole row, which stays in the
/// first cache: the sums run side by side, each with its taps in order. Per pixel and tap 1 fused step.
TARVO_BAND void convolveBand(device::View source, device::Taps mask, float* out, int p, char direction,
                             int y0, int y1) {
  const int w = source.w;
  const int radius = mask.size / 2;
  for (int y = y0; y < y1; ++y) {
    float* row = out + static_cast<long>(y) * p;
    std::fill(row, row + w, 0.0f);
    for (int i = 0; i < mask.size; ++i) {
      const float tap = mask[i];
      const int shift = direction == 'h' ? i - radius : 0;
      const int from = direction == 'h' ? y : std::min(std::max(y - radius + i, 0), source.h - 1);
      const float* in = source.data + static_cast<long>(from) * source.p;
      const int left = std::min(w, std::max(0, -shift));
      const int right = std::max(left, std::min(w, w - shift));
      for (int x = 0; x < left; ++x) row[x] = fmaf(tap, in[0], row[x]);
#pragma omp simd
      for (int x = left; x < right; ++x) row[x] = fmaf(tap, in[x + shift], row[x]);
      for (int x = right; x < w; ++x) row[x] = fmaf(tap, in[w - 1], row[x]);
    }
  }
}

void convolveLong(float* out, const device::View& source, int p, const device::Taps& mask, char direction) {
  launch(kernels::Convolve2dSep_kernel{source, mask, out, source.h, source.w, p, direction}, [&] {
    device::cpu::forBands(source.h, source.w,
                          [&](int y0, int y1) { convolveBand(source, mask, out, p, direction, y0, y1); });
  });
}

template <template <int> class Kernel>
bool convolveSmall(float* out, const float* in, int h, int w, int p, const device::Taps& mask) {
  switch (mask.size) {
    case 1:
      launch(Kernel<1>{mask, out, in, h, w, p});
      return true;
    case 3:
      launch(Kernel<3>{mask, out, in, h, w, p});
      return true;
    case 5:
      launch(Kernel<5>{mask, out, in, h, w, p});
      return true;
    case 7:
      launch(Kernel<7>{mask, out, in, h, w, p});
      return true;
    default:
      return false;
  }
}

void convolveSmallX(float* out, const float* in, int h, int w, int p, const device::Taps& mask) {
  TARVO_LAUNCHED("small x conv begin");
  if (!convolveSmall<kernels::convolveXsmall_kernel>(out, in, h, w, p, mask)) {
    convolveLong(out, {in, h, w, p}, p, mask, 'h');
  }
  TARVO_LAUNCHED("small x conv");
}

void convolveSmallY(float* out, const float* in, int h, int w, int p, const device::Taps& mask) {
  TARVO_LAUNCHED("small y conv begin");
  if (!convolveSmall<kernels::convolveYsmall_kernel>(out, in, h, w, p, mask)) {
    convolveLong(out, {in, h, w, p}, p, mask, 'v');
  }
  TARVO_LAUNCHED("small y conv");
}

/// The path of long masks and of filtering in place.
void convolveCopied(float* out, const float* in, int h, int w, int p, const device::Taps& mask,
                    char direction) {
  Source source;
  source.take(out, in, h, w, p);
  convolveLong(out, source.view(), p, mask, direction);
  source.release();
}

/// Host image in, filtered host image out: upload, filter(out plane, source view), download.
template <class Filter>
void filterHostImage(float* out, int h, int w, const float* in, const Filter& filter) {
  const device::Entry entry;
  device::Buffer source, result;
  const std::size_t floats = device::planeFloats(h, w);
  TARVO_CALL(source.allocate(floats));
  TARVO_CALL(device::copyFloats(source.get(), in, floats, device::Direction::ToDevice));
  TARVO_CALL(result.allocate(floats));
  filter(result.get(), source.get());
  TARVO_LAUNCHED("Convolution");
  TARVO_CALL(device::copyFloats(out, result.get(), floats, device::Direction::ToHost));
  TARVO_CALL(source.release());
  TARVO_CALL(result.release());
}

using HostMask = std::unique_ptr<float[]>;

}  // namespace

void gConvolveX(float* out, const float* in, int h, int w, int p, const float* mask, int size) {
  Mask loaded;
  TARVO_CALL(loaded.load(mask, size));
  if (size <= kMostSmallTaps && out != in) {
    convolveSmallX(out, in, h, w, p, loaded.taps());
  } else {
    convolveCopied(out, in, h, w, p, loaded.taps(), 'h');
  }
  TARVO_CALL(loaded.release());
}

void gConvolveY(float* out, const float* in, int h, int w, int p, const float* mask, int size) {
  Mask loaded;
  TARVO_CALL(loaded.load(mask, size));
  if (size <= kMostSmallTaps && out != in) {
    convolveSmallY(out, in, h, w, p, loaded.taps());
  } else {
    convolveCopied(out, in, h, w, p, loaded.taps(), 'v');
  }
  TARVO_CALL(loaded.release());
}

void smallconvx(float* out, const float* in, int h, int w, int p, const float* mask, int size) {
  Mask loaded;
  TARVO_CALL(loaded.load(mask, size));
  convolveSmallX(out, in, h, w, p, loaded.taps());
  TARVO_CALL(loaded.release());
}

void gConvolve(float* out, const float* in, int h, int w, int p, const float* mask, int fh, int fw) {
  Mask loaded;
  if (fh > 0 && fw > 0) TARVO_CALL(loaded.load(mask, fh * fw));
  TARVO_LAUNCHED("small xy conv begin");
  launch(kernels::convolveXYsmall_kernel{loaded.taps(), out, in, h, w, p, fh, fw});
  TARVO_LAUNCHED("small xy conv");
  TARVO_CALL(loaded.release());
}

void gGaussianFilter(float* out, const float* in, int h, int w, int p, float sigma) {
  int size = 0;
  const HostMask mask(GaussianFilterCreate(sigma, size));
  Mask loaded;
  Source source;
  source.take(out, in, h, w, p);
  TARVO_CALL(loaded.load(mask.get(), size));
  convolveLong(out, source.view(), p, loaded.taps(), 'h');
  source.copy(out, h, w, p);
  convolveLong(out, source.view(), p, loaded.taps(), 'v');
  device::synchronize();
  TARVO_LAUNCHED("Gaussian convolution over");
  source.release();
  TARVO_CALL(loaded.release());
}

void gGaussianDerivativeFilter(float* out, const float* in, int h, int w, float sigma, char direction) {
  int size = 0;
  const HostMask mask(GaussianDerivativeFilterCreate(sigma, size));
  Mask loaded;
  TARVO_CALL(loaded.load(mask.get(), size));
  convolveCopied(out, in, h, w, w, loaded.taps(), direction == 'x' ? 'h' : 'v');
  TARVO_CALL(loaded.release());
}

extern "C" {

void Convolve2d(float* out, int h, int w, const float* in, int, int, const float* mask, int fh, int fw) {
  filterHostImage(out, h, w, in, [&](float* result, const float* source) {
    Mask loaded;
    TARVO_CALL(loaded.load(mask, fh * fw));
    if (fw == 1) {
      convolveLong(result, {source, h, w, w}, w, loaded.taps(), 'h');
      Source again;
      again.copy(result, h, w, w);
      convolveLong(result, again.view(), w, loaded.taps(), 'v');
      again.release();
    } else {
      launch(kernels::Convolve2d_kernel{{source, h, w, w}, loaded.taps(), result, h, w, w, fh, fw});
    }
    TARVO_CALL(loaded.release());
  });
}

void GaussianFilter(float* out, int h, int w, const float* in, int, int, float sigma) {
  int size = 0;
  const HostMask mask(GaussianFilterCreate(sigma, size));
  Convolve2d(out, h, w, in, 0, 0, mask.get(), size, 1);
}

void GaussianDerivativeFilter(float* out, int h, int w, const float* in, int, int, char direction,
                              float sigma) {
  filterHostImage(out, h, w, in, [&](float* result, const float* source) {
    gGaussianDerivativeFilter(result, source, h, w, sigma, direction);
  });
}

}  // extern "C"
