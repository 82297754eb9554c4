#include "reference/tensor_reference.h"

#include <tarvo/tensors.h>

#include "support/test.h"

namespace {

reference::Tensors tensorsOf(const Planes& image1, const Planes& warped2, const Planes& gconf,
                             float start = 0.0f) {
  const int h = image1.h, w = image1.w;
  const DevicePlanes first(image1), second(warped2), valid(gconf);
  const DevicePlanes data(Planes(h, w, 6, start)), grad(Planes(h, w, 6, start));
  MakeST(first.get(), second.get(), data.get(), grad.get(), valid.get(), h, w, first.p(), image1.count);
  EXPECT_TRUE(first.intact() && second.intact() && valid.intact() && data.intact() && grad.intact());
  return {data.values(), grad.values()};
}

reference::Diffusivities diffusivitiesOf(const Planes& u, const Planes& v, const Planes& du,
                                         const Planes& dv) {
  const DevicePlanes a(u), b(v), c(du), d(dv), x(u.h, u.w), y(u.h, u.w);
  gDiffusivity(a.get(), b.get(), c.get(), d.get(), x.get(), y.get(), u.h, u.w, a.p());
  EXPECT_TRUE(a.intact() && b.intact() && c.intact() && d.intact());
  return {x.values(), y.values()};
}

}  // namespace

TEST(StructureTensors, EqualTheReferenceBitForBitForAnyNumberOfThreads) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(size);
    const Planes first = randomPlanes(size.h, size.w, 3, 1), second = randomPlanes(size.h, size.w, 3, 2);
    Planes gconf(size.h, size.w, 1, 1.0f);
    for (std::size_t i = 0; i < gconf.values.size(); i += 5) gconf.values[i] = 0.0f;
    const reference::Tensors expected = reference::structureTensors(first, second, gconf);
    withThreads({1, 3}, [&] {
      const reference::Tensors result = tensorsOf(first, second, gconf);
      ASSERT_TRUE(exact(result.data, expected.data));
      ASSERT_TRUE(exact(result.grad, expected.grad));
    });
  }
}

TEST(StructureTensors, AreAddedToWhatIsThereAndOnlyWhereTheWarpIsValid) {
  const Planes first = render(15, 17, 0, 0), second = render(15, 17, 1, 0);
  const reference::Tensors outside = tensorsOf(first, second, Planes(15, 17, 1, 0.0f), 3.0f);
  EXPECT_TRUE(exact(outside.data, Planes(15, 17, 6, 3.0f)));
  EXPECT_TRUE(exact(outside.grad, Planes(15, 17, 6, 3.0f)));
  EXPECT_GT(tensorsOf(first, second, Planes(15, 17, 1, 1.0f), 3.0f).data.at(7, 7, 0), 3.0f);
}

TEST(Diffusivity, EqualsTheReferenceBitForBit) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(size);
    const Planes u = randomPlanes(size.h, size.w, 1, 3, -3.0f, 3.0f),
                 v = randomPlanes(size.h, size.w, 1, 4, -3.0f, 3.0f);
    const Planes du = randomPlanes(size.h, size.w, 1, 5, -1.0f, 1.0f),
                 dv = randomPlanes(size.h, size.w, 1, 6, -1.0f, 1.0f);
    const reference::Diffusivities result = diffusivitiesOf(u, v, du, dv);
    const reference::Diffusivities expected = reference::diffusivities(u, v, du, dv);
    ASSERT_TRUE(exact(result.x, expected.x));
    ASSERT_TRUE(exact(result.y, expected.y));
  }
}

TEST(Diffusivity, OfAConstantFlowIsThousandAndOfAStepItsInverse) {
  const Planes zero(5, 6);
  const reference::Diffusivities flat =
      diffusivitiesOf(Planes(5, 6, 1, 2.0f), Planes(5, 6, 1, -9.0f), zero, zero);
  EXPECT_TRUE(exact(flat.x, Planes(5, 6, 1, 1000.0f)));
  EXPECT_TRUE(exact(flat.y, Planes(5, 6, 1, 1000.0f)));

  // u = 4 x: 1 / sqrt(16) along x; along y half a central difference across, except in the border columns.
  Planes ramp(5, 6);
  forPixels(5, 6, [&](int x, int y) { ramp.at(x, y) = 4.0f * static_cast<float>(x); });
  const reference::Diffusivities sloped = diffusivitiesOf(zero, ramp, zero, zero);
  EXPECT_FLOAT_EQ(sloped.x.at(2, 2), 0.25f);
  EXPECT_FLOAT_EQ(sloped.y.at(2, 2), 0.25f);
  EXPECT_FLOAT_EQ(sloped.y.at(0, 2), 0.5f);
  EXPECT_EQ(sloped.x.at(5, 2), 1000.0f);  // no neighbour to the east
  EXPECT_EQ(sloped.y.at(2, 4), 1000.0f);  // none to the south
}

TEST(Diffusivity, KernelsAddTheSquaresBetweenNeighbours) {
  Planes f(2, 2), across(2, 2);
  f.values = {1, 3, 6, 10};
  across.values = {2, 4, 1, 5};
  const DevicePlanes values(f), derivative(across), diff(Planes(2, 2, 1, 100.0f));
  gradientX_kernel(diff.get(), derivative.get(), values.get(), 2, 2, diff.p());
  EXPECT_EQ(diff.values().values, (std::vector<float>{113, 100, 125, 100}));  // 2^2 + 3^2, 4^2 + 3^2
  diff.fill(100.0f);
  gradientY_kernel(diff.get(), derivative.get(), values.get(), 2, 2, diff.p());
  EXPECT_EQ(diff.values().values,
            (std::vector<float>{127.25f, 169.25f, 100, 100}));  // 5^2 + 1.5^2, 7^2 + 4.5^2
}
