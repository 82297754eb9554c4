#include <tarvo/NDevice.h>
#include <tarvo/pyramid.h>

#include <iterator>
#include <vector>

#include "reference/pyramid_reference.h"
#include "support/test.h"
#include "variational/pyramid/enlarge_flow.h"
#include "variational/pyramid/match_levels.h"
#include "variational/pyramid/picture_levels.h"

namespace {

using tolerance::rounding;

constexpr double kBilinearTerms = 8.0;  // products and sums of one bilinear sample

/// One resampling: a source and a target size.
struct Resampling {
  Size from, to;
};
std::ostream& operator<<(std::ostream& stream, const Resampling& r) {
  return stream << r.from << " to " << r.to;
}
constexpr Resampling kShrinkings[] = {{{1, 1}, {1, 1}},         {{1, 7}, {1, 3}},      {{9, 1}, {4, 1}},
                                      {{15, 17}, {15, 17}},     {{15, 17}, {7, 5}},    {{16, 16}, {8, 8}},
                                      {{20, 33}, {19, 32}},     {{21, 37}, {1, 1}},    {{33, 20}, {10, 7}},
                                      {{483, 637}, {459, 606}}, {{483, 637}, {16, 21}}};

Planes shrunk(const Planes& in, Size to, const Planes* weight) {
  const DevicePlanes source(in), target(to.h, to.w, 1, 2),
      weights(weight != nullptr ? *weight : Planes(1, 1));
  downsample(source.get(), in.h, in.w, source.p(), target.get(), to.h, to.w, target.p(),
             weight != nullptr ? weights.get() : nullptr);
  EXPECT_TRUE(target.intact());
  return target.values();
}

/// The levels of a pyramid of the two pictures in the six planes of `in`.
std::vector<Planes> levelsOf(const Planes& in, const std::vector<Size>& sizes) {
  const DevicePlanes source(in);
  std::vector<variational::PictureLevels::Size> levels;
  for (const Size& size : sizes) levels.push_back({size.h, size.w, DevicePlanes(size.h, size.w, 1).p()});
  variational::PictureLevels pyramid(source.get(), source.plane(3), in.h, in.w, source.p(), levels);
  std::vector<Planes> result;
  for (const auto& level : levels) {
    const variational::PictureLevels::Pictures pictures = pyramid.next();
    result.emplace_back(level.h, level.w, 6);
    const auto download = [&](int plane, const float* from) {
      NDevice::download(&result.back().at(0, 0, plane), from, level.h, level.w, level.p, 3);
    };
    download(0, pictures.first);
    download(3, pictures.second);
  }
  pyramid.release();
  return result;
}

void expectLevelsOfPlanes(const Planes& in, const std::vector<Size>& sizes) {
  withThreads({1, 3}, [&] {
    const std::vector<Planes> levels = levelsOf(in, sizes);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      for (int k = 0; k < 6; ++k) {
        ASSERT_TRUE(exact(levels[i].plane(k), shrunk(in.plane(k), sizes[i], nullptr))) << sizes[i];
      }
    }
  });
}

Planes interpolated(const Planes& in, Size to, float factor) {
  const DevicePlanes source(in), target(to.h, to.w, 1, 2);
  gInterpolate(target.get(), to.h, to.w, target.p(), source.get(), in.h, in.w, source.p(), factor);
  EXPECT_TRUE(target.intact() && source.intact());
  return target.values();
}

reference::Warped warped(const Planes& source, const Planes& fallback, const Planes& u, const Planes& v) {
  const int h = u.h, w = u.w;
  const DevicePlanes from(source), other(fallback), flowU(u), flowV(v), out(h, w, source.count), valid(h, w);
  gWarpMotion(out.get(), flowU.get(), flowV.get(), from.get(), other.get(), source.count, valid.get(), h, w,
              out.p());
  EXPECT_TRUE(out.intact() && valid.intact());
  return {out.values(), valid.values()};
}

}  // namespace

TEST(Downsample, EqualsTheReferenceBitForBit) {
  for (const Resampling& r : kShrinkings) {
    SCOPED_TRACE(r);
    const Planes in = randomPlanes(r.from.h, r.from.w, 1, 1, -100.0f, 100.0f);
    ASSERT_TRUE(exact(shrunk(in, r.to, nullptr), reference::downsample(in, r.to.h, r.to.w, nullptr)));
    // Sparse weights with negative, zero and not-a-number ones among them.
    Planes weight = randomPlanes(r.from.h, r.from.w, 1, 2, -2.0f, 1.0f);
    for (std::size_t i = 0; i < weight.values.size(); i += 11) weight.values[i] = i % 2 == 0 ? kNan : 0.0f;
    ASSERT_TRUE(exact(shrunk(in, r.to, &weight), reference::downsample(in, r.to.h, r.to.w, &weight)));
    ASSERT_TRUE(exact(shrunk(weight, r.to, &weight), reference::downsample(weight, r.to.h, r.to.w, &weight)));
  }
}

TEST(Downsample, OfWholePicturesIsThatOfTheirPlanes) {
  std::vector<Resampling> shrinkings(std::begin(kShrinkings), std::end(kShrinkings));
  shrinkings.push_back({{3, 6001}, {2, 5701}});    // a row is wider than a strip of the source
  shrinkings.push_back({{30011, 2}, {28511, 2}});  // many bands, whose first rows are found by division
  for (const Resampling& r : shrinkings) {
    SCOPED_TRACE(r);
    Planes in = randomPlanes(r.from.h, r.from.w, 6, 4, -100.0f, 100.0f);
    in.at(r.from.w / 2, r.from.h / 2, 1) = kNan;
    in.at(r.from.w / 3, r.from.h - 1, 4) = kInf;
    expectLevelsOfPlanes(in, {r.to});
  }
  // Batches of several levels, of one, a size twice, and one larger than the source.
  const std::vector<Size> sizes{{3, 4},   {16, 21}, {16, 22},  {17, 22},   {33, 44},
                                {60, 81}, {60, 81}, {90, 100}, {130, 150}, {118, 158}};
  expectLevelsOfPlanes(randomPlanes(120, 161, 6, 6, -100.0f, 100.0f), sizes);
}

TEST(Downsample, OfAMatchFieldIsThatOfItsPlanesScaled) {
  constexpr float kScale = 0.735f;
  for (const Resampling& r : kShrinkings) {
    SCOPED_TRACE(r);
    Planes in = randomPlanes(r.from.h, r.from.w, 3, 5, -80.0f, 80.0f);
    const std::size_t n = in.values.size() / 3;
    for (std::size_t i = 0; i < n; ++i) {  // sparse weights, others not positive or not a number
      float& weight = in.values[2 * n + i];
      if (i % 7 != 0) weight = i % 3 == 0 ? 0.0f : (i % 3 == 1 ? -weight : kNan);
    }
    const Planes weights = in.plane(2);
    Planes expected(r.to.h, r.to.w, 3);
    for (int k = 0; k < 3; ++k) {
      Planes plane = shrunk(in.plane(k), r.to, &weights);
      if (k < 2) {
        for (float& value : plane.values) value *= kScale;
      }
      std::copy(plane.values.begin(), plane.values.end(), &expected.at(0, 0, k));
    }
    const DevicePlanes source(in), target(r.to.h, r.to.w, 3, 2);
    withThreads({1, 3}, [&] {
      variational::MatchLevels({source.get(), source.plane(1), source.plane(2)}, in.h, in.w, source.p())
          .build(target.get(), target.plane(1), target.plane(2), r.to.h, r.to.w, target.p(), kScale);
      EXPECT_TRUE(target.intact());
      ASSERT_TRUE(exact(target.values(), expected));
    });
  }
}

TEST(Downsample, KeepsConstantsAndHalvesToBlockMeans) {
  for (const float value : shrunk(Planes(9, 10, 1, 7.0f), {4, 3}, nullptr).values)
    EXPECT_NEAR(value, 7.0f, 1e-5f);
  Planes in(4, 4);
  for (int i = 0; i < 16; ++i) in.values[static_cast<std::size_t>(i)] = static_cast<float>(i);
  EXPECT_EQ(shrunk(in, {2, 2}, nullptr).values, (std::vector<float>{2.5f, 4.5f, 10.5f, 12.5f}));
}

TEST(Downsample, WeighsOnlyPositiveWeightsUnderAnArea) {
  Planes in(2, 6), weight(2, 6);
  in.values = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  weight.at(1, 1) = 0.3f;  // alone in the first block
  weight.at(2, 0) = 1.0f;  // with the next, in the second block
  weight.at(3, 0) = 3.0f;
  weight.at(5, 0) = kNan;  // nothing in the third
  const Planes out = shrunk(in, {1, 3}, &weight);
  EXPECT_NEAR(out.at(0, 0), 8.0f, 1e-6f);
  EXPECT_NEAR(out.at(1, 0), 3.75f, 1e-6f);
  EXPECT_TRUE(std::isnan(out.at(2, 0)));

  // A footprint that ends exactly on a border does not touch the sample behind it, whatever that holds.
  Planes line(1, 4), weights(1, 4, 1, 1.0f);
  line.values = {2, 4, kInf, 8};
  weights.values = {0, 0, 1, 1};
  EXPECT_TRUE(std::isnan(shrunk(line, {1, 2}, &weights).at(0, 0)));
}

TEST(DownsampleCpu, AgreesWithTheDeviceUpToRounding) {
  for (const Resampling& r : kShrinkings) {
    if (r.to.h >= r.from.h || r.to.w >= r.from.w) continue;
    const Planes in = randomPlanes(r.from.h, r.from.w, 2, 3);
    Planes out(r.to.h, r.to.w, 2, kNan);
    downsampleCPU(in.data(), r.from.h, r.from.w, out.data(), r.to.h, r.to.w, 2);
    for (int k = 0; k < 2; ++k) {
      const double samples = static_cast<double>(r.from.w) / r.to.w * r.from.h / r.to.h;
      // The running remainder gathers the ratio's rounding along a line: its borders drift by eps * length.
      const double drift = (r.from.w + r.from.h) / 10.0;
      EXPECT_TRUE(rounding(out.plane(k), shrunk(in.plane(k), r.to, nullptr), samples + drift * drift));
    }
  }
}

TEST(DownsampleCpu, RefusesTargetsThatAreNotSmaller) {
  Planes in(4, 4), out(4, 4, 1, 5.0f);
  for (const Size to : {Size{4, 3}, Size{3, 4}, Size{0, 3}, Size{3, 0}}) {
    EXPECT_THROW(downsampleCPU(in.data(), 4, 4, out.data(), to.h, to.w, 1), std::invalid_argument);
  }
  EXPECT_EQ(out.values, std::vector<float>(16, 5.0f));
}

TEST(Interpolate, AgreesWithTheReference) {
  for (const Resampling& r : kShrinkings) {  // the other way round
    SCOPED_TRACE(r);
    const Planes in = randomPlanes(r.to.h, r.to.w, 1, 5, -50.0f, 50.0f);
    for (const float factor : {1.0f, 1.0f / 0.95f, 2.0f, 3.7f}) {
      ASSERT_TRUE(rounding(interpolated(in, r.from, factor),
                           reference::interpolate(in, r.from.h, r.from.w, factor), kBilinearTerms));
    }
  }
}

TEST(Interpolate, MeetsTheSourceAtWholePositionsAndRepeatsItsBorders) {
  const Planes in = randomPlanes(7, 9, 1, 6, -50.0f, 50.0f);
  EXPECT_TRUE(exact(interpolated(in, {7, 9}, 1.0f), in));
  const Planes doubled = interpolated(in, {20, 25}, 2.0f);
  for (int y = 0; y < 20; y += 2) {
    for (int x = 0; x < 25; x += 2)
      EXPECT_EQ(doubled.at(x, y), in.at(std::min(x / 2, 8), std::min(y / 2, 6)));
  }
  EXPECT_EQ(doubled.at(24, 19), in.at(8, 6));
  EXPECT_EQ(doubled.at(1, 0), 0.5f * (in.at(1, 0) - in.at(0, 0)) + in.at(0, 0));
}

TEST(Interpolate, WorksOnOverlappingPlanes) {
  const Planes in = randomPlanes(10, 12, 1, 7);
  const DevicePlanes plane(in);
  gInterpolate(plane.get(), 10, 12, plane.p(), plane.get(), 10, 12, plane.p(), 1.3f);
  EXPECT_TRUE(exact(plane.values(), interpolated(in, {10, 12}, 1.3f)));
}

TEST(Interpolate, OfAFlowIsThatOfItsPlanesScaled) {
  for (const Resampling& r : kShrinkings) {  // the other way round
    SCOPED_TRACE(r);
    Planes in = randomPlanes(r.to.h, r.to.w, 2, 23, -50.0f, 50.0f);
    in.at(r.to.w / 2, r.to.h / 2, 0) = kNan;
    in.at(r.to.w - 1, r.to.h / 3, 1) = kInf;
    const int h = r.from.h, w = r.from.w;
    for (const float factor : {1.0f / 0.95f, 2.0f, 3.7f}) {
      Planes expected(h, w, 2);
      for (int k = 0; k < 2; ++k) {
        Planes plane = interpolated(in.plane(k), r.from, factor);
        for (float& value : plane.values) value *= factor;
        std::copy(plane.values.begin(), plane.values.end(), &expected.at(0, 0, k));
      }
      const DevicePlanes source(in), target(h, w, 2, 2);
      withThreads({1, 3}, [&] {
        variational::enlargeFlow(target.get(), target.plane(1), h, w, target.p(), source.get(),
                                 source.plane(1), in.h, in.w, source.p(), factor);
        EXPECT_TRUE(target.intact());
        ASSERT_TRUE(exact(target.values(), expected));
      });
    }
  }
}

TEST(Warp, AgreesWithTheReference) {
  for (const Size size : kSizes) {
    for (const int channels : {1, 3}) {
      SCOPED_TRACE(testing::Message() << size << ", " << channels << " channels");
      const Planes source = randomPlanes(size.h, size.w, channels, 9),
                   other = randomPlanes(size.h, size.w, channels, 10);
      const Planes u = randomPlanes(size.h, size.w, 1, 11, -6.0f, 6.0f),
                   v = randomPlanes(size.h, size.w, 1, 12, -6.0f, 6.0f);
      const reference::Warped result = warped(source, other, u, v),
                              expected = reference::warp(source, other, u, v);
      ASSERT_TRUE(exact(result.valid, expected.valid));
      ASSERT_TRUE(rounding(result.out, expected.out, kBilinearTerms));
    }
  }
}

TEST(Warp, OfAPictureIsThatOfItsPlanes) {
  for (const int w : {1, 15, 16, 17, 32, 45, 160}) {
    const int h = w == 160 ? 120 : 7;
    SCOPED_TRACE(testing::Message() << w << " x " << h);
    Planes source = randomPlanes(h, w, 3, 19), other = randomPlanes(h, w, 3, 20);
    source.at(w / 2, h / 2, 1) = kNan;
    other.at(w / 3, h / 3, 2) = kInf;
    Planes u = randomPlanes(h, w, 1, 21, -9.0f, 9.0f), v = randomPlanes(h, w, 1, 22, -9.0f, 9.0f);
    const float wild[] = {kNan, kInf, -3e38f, 1e10f};
    for (std::size_t i = 0; i < u.values.size(); i += 5) (i % 2 == 0 ? u : v).values[i] = wild[i / 10 % 4];
    withThreads({1, 3}, [&] {
      const reference::Warped picture = warped(source, other, u, v);
      for (int k = 0; k < 3; ++k) {
        const reference::Warped plane = warped(source.plane(k), other.plane(k), u, v);
        ASSERT_TRUE(exact(picture.out.plane(k), plane.out));
        ASSERT_TRUE(exact(picture.valid, plane.valid));
      }
    });
  }
}

TEST(Warp, TellsInsideFromOutsideAtTheLastPixel) {
  Planes source(2, 4), other(2, 4, 1, -1.0f), u(2, 4), v(2, 4);
  source.values = {0, 10, 20, 40, 1, 11, 21, 41};
  u.values = {-0.5f, 0, 0.5f, 1, 0, kNan, 1, 0};
  v.values = {0, 1, 0, 0, -1, 0, 0.5f, -1e30f};
  const reference::Warped result = warped(source, other, u, v);
  EXPECT_EQ(result.valid.values, (std::vector<float>{0, 1, 1, 0, 1, 1, 0, 0}));
  const float expected[] = {-1, 11, 30, -1, 0, kNan, -1, -1};
  for (int i = 0; i < 8; ++i) {
    if (i != 5) {  // a not-a-number position gives any value
      EXPECT_EQ(result.out.at(i % 4, i / 4), expected[i]) << i;
    }
  }
}

TEST(Warp, NeverLeavesThePlaneWhateverTheFlowHolds) {
  const Planes source = randomPlanes(5, 6, 3, 15), other(5, 6, 3, 3.0f);
  for (const float wild : {kNan, kInf, -kInf, 3e38f, -3e38f, 1e10f}) {
    const reference::Warped result = warped(source, other, Planes(5, 6, 1, wild), Planes(5, 6, 1, wild));
    for (const float value : result.out.values) EXPECT_TRUE(value >= 0.0f && value <= 255.0f) << wild;
  }
}

TEST(Warp, OfAnotherNumberOfChannelsOrNoPixelDoesNothing) {
  const DevicePlanes planes(randomPlanes(4, 5, 2, 16)), zero(Planes(4, 5)), out(4, 5, 2), valid(4, 5);
  gWarpMotion(out.get(), zero.get(), zero.get(), planes.get(), planes.get(), 2, valid.get(), 4, 5, out.p());
  gWarpMotion(out.get(), zero.get(), zero.get(), planes.get(), planes.get(), 3, valid.get(), 0, 5, out.p());
  gWarpMotion(out.get(), zero.get(), zero.get(), planes.get(), planes.get(), 3, valid.get(), 4, 0, out.p());
  for (const float value : out.values().values) EXPECT_TRUE(std::isnan(value));
  for (const float value : valid.values().values) EXPECT_TRUE(std::isnan(value));
}

TEST(Warp, WorksInPlace) {
  for (const Size size : {Size{15, 17}, Size{120, 160}}) {  // the second in several bands
    const int h = size.h, w = size.w;
    const Planes source = randomPlanes(h, w, 3, 17), other = randomPlanes(h, w, 3, 18);
    const Planes u(h, w, 1, 1.5f), v(h, w, 1, -20.25f);
    const DevicePlanes picture(source), fallback(other), flowU(u), flowV(v), valid(h, w);
    withThreads({3}, [&] {
      gWarpMotion(picture.get(), flowU.get(), flowV.get(), picture.get(), fallback.get(), 3, valid.get(), h,
                  w, picture.p());
    });
    EXPECT_TRUE(exact(picture.values(), warped(source, other, u, v).out));
  }
}
