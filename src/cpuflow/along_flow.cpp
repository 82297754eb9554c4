#include <tarvo/NFlow.h>

#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "device/cpu/band.h"
#include "device/cpu/team.h"
#include "device/device.h"
#include "device/sample.h"

// What a picture or another flow holds where a flow leads.

namespace {

constexpr float kShare = 0.01f;  // of the squared motions
constexpr float kSlack = 0.5f;   // [pixels^2]

/// Planes of a flow, and where it leads from pixel (x, y).
struct Flow {
  const float *u, *v;
  int h, w;

  explicit Flow(const CTensor<float>& flow)
      : u(flow.data()), v(&flow(0, 0, 1)), h(flow.sizeY()), w(flow.sizeX()) {}
  TARVO_HOST_DEVICE float toX(int x, int y) const { return static_cast<float>(x) + u[y * w + x]; }
  TARVO_HOST_DEVICE float toY(int x, int y) const { return static_cast<float>(y) + v[y * w + x]; }
  /// Whether a place lies on a pixel of the picture. False for what is not a number.
  TARVO_HOST_DEVICE bool inside(float px, float py) const {
    return (px >= -0.5f) & (px <= static_cast<float>(w) - 0.5f) & (py >= -0.5f) &
           (py <= static_cast<float>(h) - 0.5f);
  }
};

struct Consistency {
  Flow forward, backward;
  std::uint8_t* mask;

  /// False for what is not a number.
  TARVO_HOST_DEVICE bool visible(int x, int y) const {
    const int w = forward.w, h = forward.h;
    const float toX = forward.toX(x, y), toY = forward.toY(x, y);
    const float u = forward.u[y * w + x], v = forward.v[y * w + x];
    const float backU = device::View{backward.u, h, w, w}.bilinear(toX, toY);
    const float backV = device::View{backward.v, h, w, w}.bilinear(toX, toY);
    const float apart = (u + backU) * (u + backU) + (v + backV) * (v + backV);
    const float most = kShare * (u * u + v * v + backU * backU + backV * backV) + kSlack;
    return forward.inside(toX, toY) & (apart <= most);
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const { mask[y * forward.w + x] = visible(x, y) ? 0 : 255; }
};

/// One plane of a picture.
struct Warp {
  const float* plane;
  Flow flow;
  float* out;
  float outside;

  /// The value itself at the start, whatever lies at the end.
  TARVO_HOST_DEVICE static float blend(float start, float end, float share) {
    return share == 0.0f ? start : fmaf(share, end - start, start);
  }
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int w = flow.w;
    const float toX = flow.toX(x, y), toY = flow.toY(x, y);
    const device::BilinearPosition at(toX, toY, flow.h, w);
    const int row0 = at.y0 * w, row1 = at.y1 * w;
    const float top = blend(plane[row0 + at.x0], plane[row0 + at.x1], at.fx);
    const float bottom = blend(plane[row1 + at.x0], plane[row1 + at.x1], at.fx);
    const float value = blend(top, bottom, at.fy);
    out[y * w + x] = flow.inside(toX, toY) ? value : outside;
  }
};

template <class Step>
TARVO_BAND void runBand(Step step, int w, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
#pragma omp simd
    for (int x = 0; x < w; ++x) step(x, y);
  }
}

template <class Step>
void run(const Step& step, const Flow& flow) {
  device::cpu::forBands(flow.h, flow.w, [&](int y0, int y1) { runBand(step, flow.w, y0, y1); });
}

std::string sizeOf(const CTensor<float>& tensor) {
  return std::to_string(tensor.sizeX()) + " x " + std::to_string(tensor.sizeY()) + " x " +
         std::to_string(tensor.sizeZ());
}

}  // namespace

std::vector<std::uint8_t> NFlow::consistency(const CTensor<float>& forward, const CTensor<float>& backward) {
  if (sizeOf(forward) != sizeOf(backward) || forward.sizeZ() != 2 || forward.size() == 0) {
    throw std::invalid_argument(
        "NFlow::consistency: forward and backward must be of one size w x h x 2, got " + sizeOf(forward) +
        " and " + sizeOf(backward));
  }
  const device::Entry entry;
  std::vector<std::uint8_t> mask(static_cast<std::size_t>(forward.size()) / 2);
  run(Consistency{Flow(forward), Flow(backward), mask.data()}, Flow(forward));
  return mask;
}

CTensor<float> NFlow::warp(const CTensor<float>& image, const CTensor<float>& flow, float outside) {
  constexpr int kMostSide = 1 << 24;  // a float holds every position up to here
  if (image.sizeX() != flow.sizeX() || image.sizeY() != flow.sizeY() || flow.sizeZ() != 2 ||
      image.size() == 0 || image.sizeX() > kMostSide || image.sizeY() > kMostSide) {
    throw std::invalid_argument(
        "NFlow::warp: image and flow must be of sizes w x h x k and w x h x 2, sides up to 2^24, got " +
        sizeOf(image) + " and " + sizeOf(flow));
  }
  const device::Entry entry;
  CTensor<float> warped(image.sizeX(), image.sizeY(), image.sizeZ());
  for (int k = 0; k < image.sizeZ(); ++k) {
    run(Warp{&image(0, 0, k), Flow(flow), &warped(0, 0, k), outside}, Flow(flow));
  }
  return warped;
}
