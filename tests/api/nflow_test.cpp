#include <tarvo/tarvo.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/test.h"

namespace {

using NFlow::Image;
using NFlow::Options;

constexpr int kW = 129, kH = 113;

Options quick() {
  Options options;
  options.eta = 0.7f;
  options.fixedPointIterations = 2;
  options.solverIterations = 4;
  return options;
}

Planes runOf(const Planes& first, const Planes& second, const Options& o) {
  const Silence silence;
  CTensor<float> a = tensorOf(first), b = tensorOf(second), flow;
  runFlowGPU(a, b, flow, o.sigma, o.alpha, o.beta, o.gamma, o.eta, o.fixedPointIterations,
             o.solverIterations);
  return planesOf(flow);
}

/// Whole numbers, as bytes, and multiplied by `factor` as another element; channels of a pixel side by side.
template <class Element>
std::vector<Element> pixelsOf(const Planes& picture, int factor) {
  std::vector<Element> pixels;
  forPixels(picture.h, picture.w, [&](int x, int y) {
    for (int k = 0; k < 3; ++k) pixels.push_back(static_cast<Element>(picture.at(x, y, k) * float(factor)));
  });
  return pixels;
}

Planes wholePicture(double dx, double dy) {
  Planes picture = render(kH, kW, dx, dy);
  for (float& value : picture.values) value = std::min(255.0f, std::max(0.0f, std::floor(value)));
  return picture;
}

}  // namespace

TEST(Compute, OfEveryViewHasTheBitsOfRunFlowGpu) {
  const Planes first = wholePicture(0, 0), second = wholePicture(1.5, -0.75);
  Options options = quick();
  options.backward = true;
  for (const float sigma : {0.0f, 1.5f}) {
    options.sigma = sigma;
    const Planes forward = runOf(first, second, options), backward = runOf(second, first, options);
    const auto same = [&](const Image& a, const Image& b) {
      const NFlow::Result result = NFlow::compute(a, b, options);
      EXPECT_TRUE(exact(planesOf(result.forward), forward));
      EXPECT_TRUE(exact(planesOf(result.backward), backward));
    };
    const auto bytes1 = pixelsOf<std::uint8_t>(first, 1), bytes2 = pixelsOf<std::uint8_t>(second, 1);
    const auto words1 = pixelsOf<std::uint16_t>(first, 257), words2 = pixelsOf<std::uint16_t>(second, 257);
    same(Image::interleaved(bytes1.data(), kW, kH), Image::interleaved(bytes2.data(), kW, kH));
    same(Image::interleaved(words1.data(), kW, kH), Image::planar(second.data(), kW, kH));
    Image upsideDown = Image::interleaved(words2.data(), kW, kH);  // read twice from the bottom: as it was
    upsideDown.black = 65535.0f, upsideDown.white = 0.0f;
    auto negative = words2;
    for (std::uint16_t& value : negative) value = static_cast<std::uint16_t>(65535 - value);
    std::reverse(negative.begin(), negative.end());
    upsideDown.data = &negative[negative.size() - 1];
    upsideDown.pixelStride = -3, upsideDown.rowStride = -3 * kW, upsideDown.channelStride = -1;
    same(Image::planar(first.data(), kW, kH), upsideDown);
  }
  const Planes grey = first.plane(0);
  Planes three(kH, kW, 3);
  forPixels(kH, kW, 3, [&](int x, int y, int k) { three.at(x, y, k) = grey.at(x, y); });
  EXPECT_TRUE(exact(planesOf(NFlow::compute(tensorOf(grey), tensorOf(second), quick()).forward),
                    runOf(three, second, quick())));
}

TEST(Compute, TellsTheMatchesItUsedAndPrintsNothingUnasked) {
  const Planes first = render(kH, kW, 0, 0), second = render(kH, kW, 3, -3);
  const NMatching::Counts last = NMatching::lastCounts();
  NMatching::enable(false);
  testing::internal::CaptureStdout();
  const NFlow::Result result = NFlow::compute(tensorOf(first), tensorOf(second), quick());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  NMatching::enable(true);
  EXPECT_EQ(NMatching::lastCounts().keptMatches, last.keptMatches);
  Planes u(kH, kW), v(kH, kW), weight(kH, kW);
  {
    const Silence silence;
    createAndMatchHOG(first.data(), second.data(), u.data(), v.data(), weight.data(), kH, kW, 3);
  }
  EXPECT_EQ(result.forwardWork.counts.keptMatches, NMatching::lastCounts().keptMatches);
  std::size_t at = 0;
  forPixels(kH, kW, [&](int x, int y) {
    if (!(weight.at(x, y) > 0.0f)) return;
    ASSERT_LT(at, result.matches.size());
    const NFlow::Match& m = result.matches[at++];
    EXPECT_TRUE(m.x == float(x) && m.y == float(y) && m.u == u.at(x, y) && m.v == v.at(x, y) &&
                m.weight == weight.at(x, y));
  });
  EXPECT_EQ(at, result.matches.size());
  EXPECT_GT(at, 100u);
  EXPECT_GT(result.forwardWork.seconds.total, result.forwardWork.seconds.solver);
  EXPECT_TRUE(result.backward.size() == 0 && result.occlusion.empty());

  Options none = quick(), weightless = quick();
  none.matches = false;
  weightless.beta = 0.0f;
  EXPECT_TRUE(exact(planesOf(NFlow::compute(tensorOf(first), tensorOf(second), none).forward),
                    runOf(first, second, weightless)));
}

TEST(Compute, RefusesWrongArgumentsAndNamesThem) {
  const std::vector<float> pixels(6 * 5 * 3 + 1, 1.0f);
  std::vector<float> holes(pixels);
  holes[30 + 2 * 6 + 4] = kNan, holes[60 + 2 * 6 + 4] = -kInf;
  const std::vector<std::uint8_t> mask(30, 0);
  const Image good = Image::planar(pixels.data(), 6, 5);
  struct Call {
    Image image1, image2;
    Options options;
  };
  const struct {
    std::function<void(Call&)> change;
    const char* told;
  } kCases[] = {
      {[](Call& c) { c.image2.width = 5; }, "image1 and image2 must have the same size, got 6 x 5 and 5 x 5"},
      {[](Call& c) { c.image1.height = c.image2.height = 0; }, "6 x 0"},
      {[](Call& c) { c.image1.width = c.image2.width = -6; }, "-6 x 5"},
      {[](Call& c) { c.image1.width = c.image2.width = c.image1.height = c.image2.height = 20000; }, "20000"},
      {[](Call& c) { c.image2.channels = 2; }, "image2 must have 1 or 3 channels, got 2"},
      {[](Call& c) { c.image1.data = nullptr; }, "image1.data must not be null"},
      {[](Call& c) { c.image1.data = static_cast<const char*>(c.image1.data) + 1; }, "aligned to 4 bytes"},
      {[](Call& c) { c.image1.type = Image::Type(7); }, "image1.type must be UInt8, UInt16 or Float, got 7"},
      {[](Call& c) { c.image2.white = 0.0f; },
       "image2: black and white must be finite and differ, got 0 and 0"},
      {[](Call& c) { c.image2.black = kNan; }, "got nan and 255"},
      {[](Call& c) { c.image1.rowStride = 0; }, "got 1, 0 and 30"},
      {[](Call& c) { c.image1.rowStride = std::ptrdiff_t{1} << 61; }, "stay in memory"},
      {[&](Call& c) { c.image1.mask = mask.data(); },
       "image1: maskPixelStride and maskRowStride must not be 0 and stay in memory, got 1 and 0"},
      {[&](Call& c) { c.image2.data = holes.data(); },
       "image2 has 2 values that are not finite, the first at (4, 2), channel 1"},
      {[&](Call& c) { c.image2 = Image::interleaved(holes.data(), 6, 5); }, "the first at (3, 2), channel 1"},
      {[](Call& c) { c.image1.white = 1e-38f; }, "image1 has 90 values that are not finite"},
      {[](Call& c) { c.options.sigma = kNan; }, "sigma must be a finite number, got nan"},
      {[](Call& c) { c.options.alpha = -0.5f; }, "alpha must be a number from 0 up, got -0.5"},
      {[](Call& c) { c.options.beta = kInf; }, "beta must be a number from 0 up, got inf"},
      {[](Call& c) { c.options.eta = 1.0f; }, "eta must be between 0 and 1, got 1"},
      {[](Call& c) { c.options.solverIterations = 1 << 30; }, "solverIterations"},
      {[](Call& c) { c.options.zetaData = -1.0f; }, "zetaData"},
      {[](Call& c) { c.options.zetaData = 1.0f; }, "must both be 0 or both be above 0, got 1 and 0"},
      {[](Call& c) { c.options.finalPasses = -1; },
       "finalPasses must be a whole number from 0 to 1000, got -1"},
      {[](Call& c) { c.options.matchSpacing = 6; }, "a multiple of 4, got 6"},
      {[](Call& c) { c.options.solver = NFlow::Solver(2); },
       "solver must be conjugate-gradients or relaxation"},
      {[](Call& c) { c.options.leastSide = 0.5f; }, "leastSide must be a number from 1 up, got 0.5"},
  };
  for (const auto& [change, told] : kCases) {
    Call call{good, good, {}};
    change(call);
    try {
      NFlow::compute(call.image1, call.image2, call.options);
      ADD_FAILURE() << "accepted: " << told;
    } catch (const std::invalid_argument& error) {
      const std::string message = error.what();
      EXPECT_EQ(message.rfind("NFlow::compute: ", 0), 0u);
      EXPECT_NE(message.find(told), std::string::npos) << message << " lacks " << told;
    }
  }
  EXPECT_THROW(NFlow::preset("slow"), std::invalid_argument);
  EXPECT_THROW(NFlow::consistency(CTensor<float>(4, 4, 2), CTensor<float>(4, 5, 2)), std::invalid_argument);
}

TEST(Compute, OptionsOfThePyramidChangeItsPasses) {
  const auto passes = [](const Options& options) {
    const Progress progress;
    NFlow::compute(tensorOf(render(40, 50, 0, 0)), tensorOf(render(40, 50, 1, 0)), options);
    return progress.calls().size();
  };
  Options options = quick();
  const std::size_t usual = passes(options);
  options.finalPasses = 0;
  EXPECT_EQ(passes(options), usual - 5);
  options.leastSide = 7.5f;  // two more levels of 0.7
  EXPECT_EQ(passes(options), usual - 5 + 2);
  options.leastSide = 1.0f;
  EXPECT_GT(passes(options), usual);
}

TEST(Compute, OfEveryPresetHasTheSameBitsForAnyNumberOfThreads) {
  const Planes first = render(kH, kW, 0, 0), second = render(kH, kW, 2, 1);
  for (const std::string& preset : NFlow::presetNames()) {
    SCOPED_TRACE(preset);
    std::vector<Planes> flows;
    withThreads({1, 2, 5}, [&] {
      flows.push_back(
          planesOf(NFlow::compute(tensorOf(first), tensorOf(second), NFlow::preset(preset)).forward));
    });
    EXPECT_TRUE(exact(flows[1], flows[0]));
    EXPECT_TRUE(exact(flows[2], flows[0]));
    EXPECT_NEAR(flows[0].at(kW / 2, kH / 2, 0), 2.0, 0.1);
    EXPECT_NEAR(flows[0].at(kW / 2, kH / 2, 1), 1.0, 0.1);
  }
}

TEST(Compute, EndsWhereItsWatchThrowsAndTheNextCallWorks) {
  struct Stop {};
  const Options options;
  CTensor<float> a, b;
  Planes whole;
  double seconds = 0.0;
  for (int h = 60; seconds < 0.3; h *= 2) {  // long enough for three polls, in slow builds too
    a = tensorOf(render(h, h * 4 / 3, 0, 0)), b = tensorOf(render(h, h * 4 / 3, 2, 1));
    const NFlow::Result result = NFlow::compute(a, b, options);
    whole = planesOf(result.forward);
    seconds = result.forwardWork.seconds.total;
  }
  withThreads({1, 2}, [&] {
    const std::size_t inUse = NDevice::memoryUse().inUse;
    for (const int last : {1, 2, 3}) {
      int polls = 0, passes = 0;
      const NFlow::Watch watch{[&](int, int) { ++passes; },
                               [&] {
                                 EXPECT_THROW(NFlow::compute(a, b, options), std::logic_error);
                                 if (++polls == last) throw Stop();
                               }};
      EXPECT_THROW(NFlow::compute(a, b, options, watch), Stop);
      EXPECT_EQ(polls, last);
      EXPECT_EQ(NDevice::memoryUse().inUse, inUse);
      if (last == 1) {
        EXPECT_EQ(passes, 0);
      }
    }
    EXPECT_TRUE(exact(planesOf(NFlow::compute(a, b, options).forward), whole));
  });

  // One who waits for another's computation can leave; neither hears of the other's passes.
  std::atomic<bool> waiterLeft{false};
  std::vector<int> totals;
  std::thread waiter;
  Options both = options;
  both.backward = true;
  const auto heard = [&](int done, int total) {
    if (done == 1) {
      waiter = std::thread([&] {
        const NFlow::Watch leave{[](int, int) { ADD_FAILURE(); }, [] { throw Stop(); }};
        EXPECT_THROW(NFlow::compute(a, b, options, leave), Stop);
        waiterLeft = true;
      });
      while (!waiterLeft) std::this_thread::yield();
    }
    totals.push_back(total);
    EXPECT_EQ(done, static_cast<int>(totals.size()));
  };
  EXPECT_TRUE(exact(planesOf(NFlow::compute(a, b, both, {heard, nullptr}).forward), whole));
  waiter.join();
  EXPECT_EQ(totals.size(), static_cast<std::size_t>(totals.back()));
}

TEST(Compute, SearchesNoOtherPointsThanThoseOfItsSpacing) {
  Options options = quick();
  options.matchSpacing = 8;
  const NFlow::Result result =
      NFlow::compute(tensorOf(render(kH, kW, 0, 0)), tensorOf(render(kH, kW, 3, -3)), options);
  EXPECT_GT(result.matches.size(), 25u);
  for (const NFlow::Match& m : result.matches) {
    EXPECT_TRUE(int(m.x) % 8 == NMatching::kMargin % 8 && int(m.y) % 8 == NMatching::kMargin % 8);
  }
  EXPECT_EQ(result.forwardWork.counts.gridPoints, 14 * 12);  // 105 and 89 pixels within the margins
}

TEST(MemoryRequired, BoundsWhatAComputationTakes) {
#ifdef TARVO_POOL_PASSES_THROUGH  // slow builds, whose pool keeps nothing that was in use between two passes
  constexpr bool kKeeps = false;
#else
  constexpr bool kKeeps = true;
#endif
  for (const int w : {161, 321, 640}) {
    if (kKeeps != (w > 200)) continue;
    const int h = 3 * w / 4;
    for (const std::string& preset : NFlow::presetNames()) {
      Options options = NFlow::preset(preset);
      options.fixedPointIterations = 1;
      NDevice::trim();
      const auto held = [] { return NDevice::memoryUse().kept + NDevice::memoryUse().inUse; };
      const std::size_t before = held();
      std::size_t taken = 0;
      const NFlow::Watch watch{[&](int, int) { taken = std::max(taken, held() - before); }, {}};
      NFlow::compute(tensorOf(render(h, w, 0, 0)), tensorOf(render(h, w, 1, 0)), options, watch);
      const std::size_t required = NFlow::memoryRequired(w, h, options).device;
      EXPECT_LE(taken, required) << preset << " " << w;
      if (kKeeps) {
        EXPECT_GE(double(taken), 0.9 * double(required)) << preset << " " << w;
      }
    }
  }
  EXPECT_THROW(NFlow::memoryRequired(20000, 20000), std::invalid_argument);
}

TEST(Warp, UndoesTheMotionAndMarksWhatItCannotSee) {
  const CTensor<float> first = tensorOf(render(40, 50, 0, 0)), second = tensorOf(render(40, 50, 3, -2));
  CTensor<float> flow(50, 40, 2, 3.0f);
  for (int i = 0; i < 50 * 40; ++i) flow.data()[50 * 40 + i] = -2.0f;
  flow(7, 8, 1) = kNan;
  const CTensor<float> back = NFlow::warp(second, flow, -1.0f);
  forPixels(40, 50, 3, [&](int x, int y, int k) {
    const bool seen = x < 47 && y >= 2 && !(x == 7 && y == 8);
    EXPECT_NEAR(back(x, y, k), seen ? first(x, y, k) : -1.0f, 1e-3) << x << " " << y;
  });
  flow = CTensor<float>(50, 40, 2, 0.25f);  // to within the last pixels
  EXPECT_TRUE(std::isfinite(NFlow::warp(second, flow)(49, 39, 0)));
  flow = CTensor<float>(50, 40, 2, 0.0f);
  EXPECT_TRUE(exact(planesOf(NFlow::warp(second, flow)), planesOf(second)));
  EXPECT_THROW(NFlow::warp(first, CTensor<float>(50, 41, 2, 0.0f)), std::invalid_argument);
}

TEST(Consistency, MarksWhatLeavesThePictureOrDoesNotReturn) {
  // A square of 10 x 10 moves 6 pixels to the right, over what stands still; a row leaves on top.
  CTensor<float> forward(40, 30, 2, 0.0f), backward(40, 30, 2, 0.0f);
  for (int y = 10; y < 20; ++y) {
    for (int x = 10; x < 20; ++x) forward(x, y, 0) = 6.0f, backward(x + 6, y, 0) = -6.0f;
  }
  for (int x = 0; x < 40; ++x) forward(x, 0, 1) = -0.75f, forward(x, 29, 1) = 0.25f;
  forward(3, 25, 0) = 0.5f;  // within the slack
  forward(5, 25, 0) = kNan;
  const std::vector<std::uint8_t> mask = NFlow::consistency(forward, backward);
  forPixels(30, 40, [&](int x, int y) {
    const bool hidden = x >= 20 && x < 26 && y >= 10 && y < 20;
    const bool expected = hidden || y == 0 || (x == 5 && y == 25);
    EXPECT_EQ(mask[static_cast<std::size_t>(y * 40 + x)], expected ? 255 : 0) << x << " " << y;
  });
}
