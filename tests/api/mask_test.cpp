// Pictures of which a part is unknown.
#include <tarvo/tarvo.h>

#include "support/test.h"

namespace {

constexpr int kW = 129, kH = 113;
constexpr float kU = 2.0f, kV = 1.0f;

struct Rectangle {
  int x0, y0, x1, y1;
  bool holds(int x, int y) const { return x >= x0 && x < x1 && y >= y0 && y < y1; }
};
// Larger holes hide so many counterparts that points around them are matched elsewhere.
constexpr Rectangle kHole1{30, 40, 50, 66}, kHole2{80, 20, 96, 50}, kNothing{}, kAll{0, 0, kW, kH};

/// The flow between two pictures that hold junk in a hole each, which is masked, or else ignored if it is not
/// finite; turned: from the second picture to the first.
NFlow::Result flowOf(const NFlow::Options& options, Rectangle hole1, Rectangle hole2, float junk,
                     bool masked = true, bool turned = false) {
  Planes pictures[] = {render(kH, kW, 0, 0), render(kH, kW, kU, kV)};
  std::vector<std::uint8_t> masks[2];  // read from the end
  NFlow::Image images[2];
  for (int k = 0; k < 2; ++k) {
    forPixels(kH, kW, [&](int x, int y) {
      const bool hole = (k == 0 ? hole1 : hole2).holds(x, y);
      masks[k].insert(masks[k].begin(), hole ? 7 : 0);
      for (int c = 0; c < 3 && hole; ++c) pictures[k].at(x, y, c) = junk;
    });
    images[k] = NFlow::Image::planar(pictures[k].data(), kW, kH);
    if (masked) images[k].mask = &masks[k].back();
    images[k].maskPixelStride = -1, images[k].maskRowStride = -kW;
    images[k].ignoreNaN = !masked;
  }
  return NFlow::compute(images[turned ? 1 : 0], images[turned ? 0 : 1], options);
}

/// Mean distance from (u, v) in a part of the picture.
double meanError(const CTensor<float>& flow, float u, float v, Rectangle part) {
  double sum = 0, count = 0;
  forPixels(kH, kW, [&](int x, int y) {
    if (part.holds(x, y)) sum += std::hypot(flow(x, y, 0) - u, flow(x, y, 1) - v), ++count;
  });
  return sum / count;
}

}  // namespace

TEST(Mask, HidesJunkInBothDirections) {
  for (const std::string& preset : NFlow::presetNames()) {
    SCOPED_TRACE(preset);
    NFlow::Options options = NFlow::preset(preset);
    options.backward = true;
    std::vector<NFlow::Result> results;
    withThreads({1, 2},
                [&] { results.push_back(flowOf(options, kHole1, kHole2, results.empty() ? -1e6f : kNan)); });
    EXPECT_TRUE(exact(planesOf(results[1].forward), planesOf(results[0].forward)));
    EXPECT_TRUE(exact(planesOf(results[1].backward), planesOf(results[0].backward)));
    options.backward = false;
    EXPECT_TRUE(exact(planesOf(flowOf(options, kHole1, kHole2, kNan, false, true).forward),
                      planesOf(results[0].backward)));
    for (const Rectangle part : {kHole1, kHole2, kAll}) {
      EXPECT_LT(meanError(results[0].forward, kU, kV, part), 0.02);
      EXPECT_LT(meanError(results[0].backward, -kU, -kV, part), 0.02);
    }
    for (const NFlow::Match& m : results[0].matches) {
      EXPECT_FALSE(kHole1.holds(int(m.x), int(m.y)) || kHole2.holds(int(m.x + m.u), int(m.y + m.v)))
          << m.x << " " << m.y;
    }
    const Planes clean = planesOf(
        NFlow::compute(tensorOf(render(kH, kW, 0, 0)), tensorOf(render(kH, kW, kU, kV)), options).forward);
    EXPECT_TRUE(exact(planesOf(flowOf(options, kNothing, kNothing, 0.0f).forward), clean));
    EXPECT_TRUE(exact(planesOf(flowOf(options, kAll, kNothing, kNan).forward), Planes(kH, kW, 2)));
  }
}
