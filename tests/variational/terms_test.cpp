// The terms beside the default energy, against their formulas.
#include "variational/flow/steps.h"

#include "reference/tensor_reference.h"
#include "support/test.h"
#include "variational/flow/scratch.h"

namespace {

constexpr int kH = 23, kW = 41;
constexpr float kZetaData = 0.5f, kZetaGradient = 2.0f, kScale = 15.0f, kEpsilon = 0.25f;

/// J11, J22, J33, J12, J13, J23 of one constraint, added at (x, y).
void addConstraint(Planes& sum, int x, int y, double gx, double gy, double gz, double zeta) {
  const double k = 1.0 / (gx * gx + gy * gy + zeta * zeta);
  const double products[6] = {gx * gx, gy * gy, gz * gz, gx * gy, gx * gz, gy * gz};
  for (int j = 0; j < 6; ++j) sum.at(x, y, j) += static_cast<float>(k * products[j]);
}

}  // namespace

TEST(Terms, NormalisedTensorsHaveTheUnitsOfPixels) {
  const Planes first = randomPlanes(kH, kW, 3, 1), second = randomPlanes(kH, kW, 3, 2);
  const std::vector<float> mask{1.0f / 12.0f, -2.0f / 3.0f, 0.0f, 2.0f / 3.0f, -1.0f / 12.0f};
  Planes data(kH, kW, 6), grad(kH, kW, 6);
  for (int k = 0; k < 3; ++k) {
    Planes Iz = second.plane(k);
    for (std::size_t i = 0; i < Iz.values.size(); ++i) Iz.values[i] -= first.plane(k).values[i];
    const Planes Ix = reference::convolveX(first.plane(k), mask),
                 Iy = reference::convolveY(first.plane(k), mask);
    const Planes xx = reference::convolveX(Ix, mask), xy = reference::convolveY(Ix, mask),
                 yy = reference::convolveY(Iy, mask), xz = reference::convolveX(Iz, mask),
                 yz = reference::convolveY(Iz, mask);
    forPixels(kH, kW, [&](int x, int y) {
      addConstraint(data, x, y, Ix.at(x, y), Iy.at(x, y), Iz.at(x, y), kZetaData);
      addConstraint(grad, x, y, xx.at(x, y), xy.at(x, y), xz.at(x, y), kZetaGradient);
      addConstraint(grad, x, y, xy.at(x, y), yy.at(x, y), yz.at(x, y), kZetaGradient);
    });
  }
  const DevicePlanes image1(first), image2(second), valid(Planes(kH, kW, 1, 1.0f)), tensors(kH, kW, 12),
      scratch(kH, kW, 9);
  FPtmp fp{};
  fp.stData = tensors.get();
  fp.stGrad = tensors.plane(6);
  fp.matrix = scratch.get();
  NFlow::Terms terms;
  terms.zetaData = kZetaData;
  terms.zetaGradient = kZetaGradient;
  variational::structureTensors(image1.get(), image2.get(), fp, valid.get(), kH, kW, image1.p(), 3, terms);
  const Planes result = tensors.values();
  forPixels(kH, kW, 6, [&](int x, int y, int j) {
    const float scale = 1e-4f * (1.0f + std::fabs(data.at(x, y, j)) + std::fabs(grad.at(x, y, j)));
    EXPECT_NEAR(result.at(x, y, j), data.at(x, y, j), scale) << x << " " << y << " " << j;
    EXPECT_NEAR(result.at(x, y, 6 + j), grad.at(x, y, j), scale) << x << " " << y << " " << j;
  });
}

TEST(Terms, SmoothnessFallsOffAtEdgesAndBelowItsEpsilon) {
  const Planes picture = randomPlanes(kH, kW, 3, 3, 0.0f, 60.0f),
               flow = randomPlanes(kH, kW, 2, 4, -3.0f, 3.0f);
  const DevicePlanes image(picture), u(flow), edges(kH, kW, 2), increment(Planes(kH, kW, 2)), diff(kH, kW, 2);
  variational::edgeWeights(image.get(), {edges.get(), edges.plane(1)}, kH, kW, image.p(), kScale);
  FPtmp fp{};
  fp.increment = increment.get();
  fp.diffX = diff.get();
  fp.diffY = diff.plane(1);
  variational::diffusivity(u.get(), u.plane(1), fp, kH, kW, u.p(), {edges.get(), edges.plane(1)}, kEpsilon);
  const Planes weights = edges.values(), weighted = diff.values();
  variational::diffusivity(u.get(), u.plane(1), fp, kH, kW, u.p(), {}, kEpsilon);
  const Planes even = diff.values();
  const reference::Diffusivities plain =
      reference::diffusivities(flow.plane(0), flow.plane(1), Planes(kH, kW), Planes(kH, kW));
  forPixels(kH, kW, 2, [&](int x, int y, int axis) {
    const int nextX = axis == 0 ? x + 1 : x, nextY = axis == 0 ? y : y + 1;
    double expected = 1.0;
    if (nextX < kW && nextY < kH) {
      double squares = 0.0;
      for (int k = 0; k < 3; ++k) squares += std::pow(picture.at(nextX, nextY, k) - picture.at(x, y, k), 2.0);
      expected = std::pow(std::max(0.0, 1.0 - std::sqrt(squares / 3.0) / (16.0 * double(kScale))), 16.0);
    }
    EXPECT_NEAR(weights.at(x, y, axis), expected, 1e-5);
    const double own = (axis == 0 ? plain.x : plain.y).at(x, y);
    const double softened = 1.0 / std::sqrt(1.0 / (own * own) - 1e-6 + double(kEpsilon * kEpsilon));
    EXPECT_NEAR(even.at(x, y, axis), softened, 1e-4 * softened);
    EXPECT_NEAR(weighted.at(x, y, axis), expected * softened, 1e-4 * softened);
  });
}
