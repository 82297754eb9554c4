// The CUDA device's results against the CPU device's, bit for bit, in one process. Where a test of another room
// compares with a reference bit for bit, that test run on the CUDA device says as much.
#include <tarvo/tarvo.h>

#include <functional>

#include "support/test.h"
#include "variational/systems.h"

namespace {

/// Runs the same work on both devices.
class CudaEqualsCpu : public testing::Test {
 protected:
  void SetUp() override {
    before_ = NDevice::kind();
    try {
      NDevice::select("cuda");
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << error.what();
    }
  }
  void TearDown() override { NDevice::select(before_); }

  static void compare(const std::function<Planes()>& work) {
    const Silence silence;
    NDevice::select("cpu");
    const Planes expected = work();
    NDevice::select("cuda");
    EXPECT_TRUE(exact(work(), expected));
    EXPECT_TRUE(exact(work(), expected)) << "on a second run";
  }

 private:
  std::string before_;
};

constexpr int kHeight = 113, kWidth = 329;  // more than one segment of a row, more than one block and band

}  // namespace

TEST_F(CudaEqualsCpu, OnInterpolationAndWarping) {
  static const Planes picture = randomPlanes(kHeight, kWidth, 3, 1, -50.0f, 50.0f);
  compare([] {
    const DevicePlanes in(picture), out(Planes(kHeight, kWidth, 1));
    gInterpolate(out.get(), kHeight, kWidth, out.p(), in.get(), 70, 300, in.p(), 1.0f / 0.95f);
    return out.values();
  });
  for (const int channels : {1, 3}) {
    compare([channels] {
      const DevicePlanes in(picture), flow(randomPlanes(kHeight, kWidth, 2, 5, -4.0f, 4.0f)),
          valid(kHeight, kWidth), out(Planes(kHeight, kWidth, 3));
      gWarpMotion(out.get(), flow.get(), flow.plane(1), in.get(), in.get(), channels, valid.get(), kHeight,
                  kWidth, in.p());
      return out.values();
    });
  }
}

TEST_F(CudaEqualsCpu, OnALargeSystem) {
  const TestSystem system(483, 637, 12);
  compare([&] {
    const DeviceSystem device(system);
    device.solve(30);
    return device.x.values();
  });
}

TEST_F(CudaEqualsCpu, OnWholeFlows) {
  for (const Size size : {Size{1, 1}, Size{10, 10}, Size{16, 16}, Size{15, 100}, Size{kHeight, kWidth}}) {
    SCOPED_TRACE(size);
    compare([size] {
      CTensor<float> first = tensorOf(render(size.h, size.w, 0, 0)),
                     second = tensorOf(render(size.h, size.w, 2, 1)), flow;
      runFlowGPU(first, second, flow, 0.8f, 30.0f, 300.0f, 5.0f, 0.95f, 5, 10);
      return planesOf(flow);
    });
    for (const std::string& preset : NFlow::presetNames()) {
      SCOPED_TRACE(preset);
      compare([&] {
        return planesOf(NFlow::compute(tensorOf(render(size.h, size.w, 0, 0)),
                                       tensorOf(render(size.h, size.w, 2, 1)), NFlow::preset(preset))
                            .forward);
      });
    }
    compare([size] {  // a part of the first picture is unknown
      Planes first = render(size.h, size.w, 0, 0), second = render(size.h, size.w, 2, 1);
      std::fill_n(first.data() + first.values.size() / 2, first.values.size() / 14, kNan);
      NFlow::Image a = NFlow::Image::planar(first.data(), size.w, size.h);
      a.ignoreNaN = true;
      const NFlow::Image b = NFlow::Image::planar(second.data(), size.w, size.h);
      return planesOf(NFlow::compute(a, b, NFlow::preset("fast")).forward);
    });
  }
}
