// The CUDA device's results against the CPU device's, bit for bit.
#include <tarvo/tarvo.h>

#include <functional>

#include "variational/systems.h"
#include "support/test.h"

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

/// A kernel from planes to planes of the same size.
Planes applied(const std::function<void(const DevicePlanes& in, const DevicePlanes& out)>& kernel) {
  const DevicePlanes in(randomPlanes(kHeight, kWidth, 3, 1, -50.0f, 50.0f)), out(Planes(kHeight, kWidth, 3));
  kernel(in, out);
  EXPECT_TRUE(in.intact() && out.intact());
  return out.values();
}

}  // namespace

TEST_F(CudaEqualsCpu, OnFilters) {
  const Planes mask = randomPlanes(1, 45, 1, 2, -1.0f, 1.0f);
  for (const int taps : {1, 3, 4, 5, 7, 9, 45}) {
    compare([&] {
      return applied([&](const DevicePlanes& in, const DevicePlanes& out) {
        gConvolveX(out.plane(0), in.plane(0), kHeight, kWidth, in.p(), mask.data(), taps);
        gConvolveY(out.plane(1), in.plane(1), kHeight, kWidth, in.p(), mask.data(), taps);
        gConvolve(out.plane(2), in.plane(2), kHeight, kWidth, in.p(), mask.data(), 3, taps < 9 ? taps : 9);
      });
    });
  }
  compare([&] {
    return applied([&](const DevicePlanes& in, const DevicePlanes& out) {
      gGaussianFilter(out.plane(0), in.plane(0), kHeight, kWidth, in.p(), 4.0f);
      gGaussianFilter(out.plane(0), out.plane(0), kHeight, kWidth, in.p(), 8.0f);
    });
  });
  compare([&] {
    Planes image = randomPlanes(kHeight, kWidth, 1, 3), out(kHeight, kWidth, 2);
    Convolve2d(out.data(), kHeight, kWidth, image.data(), 0, 0, mask.data(), 5, 9);
    GaussianDerivativeFilter(out.data() + kHeight * kWidth, kHeight, kWidth, image.data(), 0, 0, 'x', 2.0f);
    return out;
  });
}

TEST_F(CudaEqualsCpu, OnElementwiseKernels) {
  compare([] {
    return applied([](const DevicePlanes& in, const DevicePlanes& out) {
      const int h = kHeight, w = kWidth, p = in.p();
      Diff_kernel(out.get(), in.plane(0), in.plane(1), h, w, p);
      Psi_kernel(out.get(), h, w, p);
      normalize_kernel(out.get(), h, w, p);
      Mult_kernel(out.plane(1), in.plane(0), in.plane(2), h, w, p);
      Scale_and_Add_kernel(out.plane(1), in.plane(1), 0.3f, h, w, p);
      mySaxpy2_kernel(out.plane(1), in.plane(0), 0.1f, out.plane(2), in.plane(2), -0.7f, h, w, p);
      Bound_kernel(out.plane(2), -20.0f, 20.0f, h, w, p);
    });
  });
}

TEST_F(CudaEqualsCpu, OnResamplingAndWarping) {
  compare([] {
    const DevicePlanes in(randomPlanes(kHeight, kWidth, 2, 4, -1.0f, 1.0f)), out(60, 201, 2);
    downsample(in.get(), kHeight, kWidth, in.p(), out.get(), 60, 201, out.p(), nullptr);
    downsample(in.get(), kHeight, kWidth, in.p(), out.plane(1), 60, 201, out.p(), in.plane(1));
    return out.values();
  });
  compare([] {
    return applied([](const DevicePlanes& in, const DevicePlanes& out) {
      gInterpolate(out.get(), kHeight, kWidth, out.p(), in.get(), 70, 300, in.p(), 1.0f / 0.95f);
    });
  });
  for (const int channels : {1, 3}) {
    compare([channels] {
      return applied([channels](const DevicePlanes& in, const DevicePlanes& out) {
        const DevicePlanes flow(randomPlanes(kHeight, kWidth, 2, 5, -4.0f, 4.0f)), valid(kHeight, kWidth);
        gWarpMotion(out.get(), flow.get(), flow.plane(1), in.get(), in.get(), channels, valid.get(), kHeight,
                    kWidth, in.p());
      });
    });
  }
}

TEST_F(CudaEqualsCpu, OnTensorsAndDiffusivities) {
  compare([] {
    const DevicePlanes images(randomPlanes(kHeight, kWidth, 7, 6)), tensors(Planes(kHeight, kWidth, 12));
    MakeST(images.get(), images.plane(3), tensors.get(), tensors.plane(6), images.plane(6), kHeight, kWidth,
           images.p(), 3);
    return tensors.values();
  });
  compare([] {
    const DevicePlanes flow(randomPlanes(kHeight, kWidth, 4, 7, -2.0f, 2.0f)), diff(kHeight, kWidth, 2);
    gDiffusivity(flow.get(), flow.plane(1), flow.plane(2), flow.plane(3), diff.get(), diff.plane(1), kHeight,
                 kWidth, flow.p());
    return diff.values();
  });
}

TEST_F(CudaEqualsCpu, OnFixedPointStepsAndTheirSolver) {
  for (const int solverIterations : {0, 1, 2, 7}) {
    compare([solverIterations] {
      Planes first = render(kHeight, kWidth, 0, 0), second = render(kHeight, kWidth, 1, 0.5),
             flow(kHeight, kWidth, 2);
      Planes valid(kHeight, kWidth, 1, 1.0f), match = randomPlanes(kHeight, kWidth, 3, 8, -1.0f, 1.0f);
      const std::size_t n = valid.values.size();
      NonLinearIteration(first.data(), second.data(), valid.data(), match.data(), match.data() + n,
                         match.data() + 2 * n, 1, flow.data(), flow.data() + n, kHeight, kWidth, 30.0f,
                         300.0f, 5.0f, 3, solverIterations, 1.0f);
      return flow;
    });
  }
}

TEST_F(CudaEqualsCpu, OnSolversOfEitherKind) {
  for (const Size size : {Size{1, 1}, Size{9, 1}, Size{15, 17}, Size{33, 300}, Size{483, 637}}) {
    SCOPED_TRACE(size);
    const TestSystem system(size.h, size.w, 12);
    for (const int iterations : {1, 2, 30}) {
      compare([&] {
        const DeviceSystem device(system);
        device.solve(iterations);
        return device.x.values();
      });
      compare([&] {
        Planes x = system.start;
        SORIterations(system.matrix.data(), system.rhs.data(), x.data(), x.data() + size.h * size.w, x.data(),
                      size.h, size.w, 1.85f, iterations);
        return x;
      });
    }
  }
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
  }
}
