#include <tarvo/elementwise.h>
#include <tarvo/filters.h>
#include <tarvo/tensors.h>

#include "device/launch.h"
#include "device/memory.h"
#include "gpu/tensor_kernels.h"
#include "gpu/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

/// Fourth-order first derivative.
constexpr float kDerivative5[5] = {1.0f / 12.0f, -2.0f / 3.0f, 0.0f, 2.0f / 3.0f, -1.0f / 12.0f};
/// Central difference.
constexpr float kDerivative3[3] = {-0.5f, 0.0f, 0.5f};

}  // namespace

void makeST_kernel(float* stData, const float* Ix, const float* Iy, const float* Iz, const float* gconf,
                   int h, int w, int p) {
  launch(kernels::makeST_kernel{stData, Ix, Iy, Iz, gconf, h, w, p});
}

void makeST2_kernel(float* stGrad, const float* Ixx, const float* Ixy, const float* Iyy, const float* Ixz,
                    const float* Iyz, const float* gconf, int h, int w, int p) {
  launch(kernels::makeST2_kernel{stGrad, Ixx, Ixy, Iyy, Ixz, Iyz, gconf, h, w, p});
}

void gradientX_kernel(float* diff, const float* fy, const float* f, int h, int w, int p) {
  launch(kernels::gradientX_kernel{diff, fy, f, h, w, p});
}

void gradientY_kernel(float* diff, const float* fx, const float* f, int h, int w, int p) {
  launch(kernels::gradientY_kernel{diff, fx, f, h, w, p});
}

void MakeST(const float* image1, const float* warped2, float* stData, float* stGrad, const float* gconf,
            int h, int w, int p, int channels) {
  const std::size_t n = device::planeFloats(h, p);
  device::Buffer Ix, Iy, Iz, Ixx, Ixy, Iyy, Ixz, Iyz;
  device::Buffer* const derivatives[] = {&Ix, &Iy, &Iz, &Ixx, &Ixy, &Iyy, &Ixz, &Iyz};
  for (device::Buffer* plane : derivatives) TARVO_CALL(plane->allocate(n));

  for (int c = 0; c < channels; ++c) {
    const float* first = image1 + static_cast<std::size_t>(c) * n;
    const float* second = warped2 + static_cast<std::size_t>(c) * n;
    gConvolveX(Ix.get(), first, h, w, p, kDerivative5, 5);
    gConvolveY(Iy.get(), first, h, w, p, kDerivative5, 5);
    Diff_kernel(Iz.get(), second, first, h, w, p);
    gConvolveX(Ixx.get(), Ix.get(), h, w, p, kDerivative5, 5);
    gConvolveY(Ixy.get(), Ix.get(), h, w, p, kDerivative5, 5);
    gConvolveY(Iyy.get(), Iy.get(), h, w, p, kDerivative5, 5);
    gConvolveX(Ixz.get(), Iz.get(), h, w, p, kDerivative5, 5);
    gConvolveY(Iyz.get(), Iz.get(), h, w, p, kDerivative5, 5);
    makeST_kernel(stData, Ix.get(), Iy.get(), Iz.get(), gconf, h, w, p);
    makeST2_kernel(stGrad, Ixx.get(), Ixy.get(), Iyy.get(), Ixz.get(), Iyz.get(), gconf, h, w, p);
  }
  for (device::Buffer* plane : derivatives) TARVO_CALL(plane->release());
}

void gDiffusivity(const float* u, const float* v, const float* du, const float* dv, float* diffX,
                  float* diffY, int h, int w, int p) {
  const std::size_t n = device::planeFloats(h, p);
  device::Buffer total, gradient;
  TARVO_CALL(total.allocate(n));
  TARVO_CALL(gradient.allocate(n));
  TARVO_CALL(device::clear(diffX, n * sizeof(float)));
  TARVO_CALL(device::clear(diffY, n * sizeof(float)));

  const float* const flow[] = {u, v};
  const float* const increment[] = {du, dv};
  for (int c = 0; c < 2; ++c) {
    TARVO_CALL(device::copyFloats(total.get(), flow[c], n, device::Direction::OnDevice));
    Add_kernel(total.get(), increment[c], h, w, p);
    gConvolveY(gradient.get(), total.get(), h, w, p, kDerivative3, 3);
    gradientX_kernel(diffX, gradient.get(), total.get(), h, w, p);
    gConvolveX(gradient.get(), total.get(), h, w, p, kDerivative3, 3);
    gradientY_kernel(diffY, gradient.get(), total.get(), h, w, p);
  }
  normalize_kernel(diffX, h, w, p);
  normalize_kernel(diffY, h, w, p);
  TARVO_CALL(total.release());
  TARVO_CALL(gradient.release());
}
