#include <tarvo/picture.h>
#include <tarvo/tensors.h>

#include "device/launch.h"
#include "device/memory.h"
#include "variational/flow/steps.h"
#include "variational/flow/tensor_kernels.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

/// Adds Channels channels, or sets the tensors to them where kFresh; scratch holds 3 * Channels planes.
template <int Channels, bool kFresh, class Zetas>
void sumTensors(const float* image1, const float* warped2, float* stData, float* stGrad, const float* gconf,
                float* scratch, int h, int w, int p, Zetas zetas) {
  const std::size_t n = device::planeFloats(h, p);
  float* const Ix = scratch;
  float* const Iy = scratch + Channels * n;
  float* const Iz = scratch + 2 * Channels * n;
  for (std::size_t offset = 0; offset < Channels * n; offset += n) {
    launch(kernels::FirstDerivatives{image1 + offset, warped2 + offset, Ix + offset, Iy + offset, Iz + offset,
                                     h, w, p});
  }
  launch(kernels::SumTensors<Channels, kFresh, Zetas>{Ix, Iy, Iz, gconf, stData, stGrad, h, w, p, zetas});
}

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
  device::Buffer scratch;
  TARVO_CALL(scratch.allocate(3 * n));
  for (std::size_t c = 0; c < static_cast<std::size_t>(channels); ++c) {
    sumTensors<1, false>(image1 + c * n, warped2 + c * n, stData, stGrad, gconf, scratch.get(), h, w, p,
                         kernels::NoZetas{});
  }
  TARVO_CALL(scratch.release());
}

void variational::structureTensors(const float* image1, const float* warped2, const FPtmp& fp,
                                   const float* gconf, int h, int w, int p, int channels,
                                   const NFlow::Terms& terms) {
  constexpr std::size_t kTensorPlanes = 6;
  const std::size_t n = device::planeFloats(h, p);
  if (channels == kPictureChannels) {
    if (isNormalised(terms)) {
      sumTensors<kPictureChannels, true>(
          image1, warped2, fp.stData, fp.stGrad, gconf, fp.matrix, h, w, p,
          kernels::SquaredZetas{terms.zetaData * terms.zetaData, terms.zetaGradient * terms.zetaGradient});
    } else {
      sumTensors<kPictureChannels, true>(image1, warped2, fp.stData, fp.stGrad, gconf, fp.matrix, h, w, p,
                                         kernels::NoZetas{});
    }
    return;
  }
  TARVO_CALL(device::clear(fp.stData, kTensorPlanes * n * sizeof(float)));
  TARVO_CALL(device::clear(fp.stGrad, kTensorPlanes * n * sizeof(float)));
  MakeST(image1, warped2, fp.stData, fp.stGrad, gconf, h, w, p, channels);
}

void gDiffusivity(const float* u, const float* v, const float* du, const float* dv, float* diffX,
                  float* diffY, int h, int w, int p) {
  launch(kernels::TotalFlowDiffusivity<kernels::PlainPenalty>{u, v, du, dv, diffX, diffY, h, w, p, {}});
}

void variational::weighValid(float* valid, const KnownPlanes& known, const float* u, const float* v, int h,
                             int w, int p) {
  launch(kernels::WeighValid{valid, known.first, {known.second, h, w, p}, u, v, h, w, p, known.whole});
}

void variational::edgeWeights(const float* image, const EdgePlanes& edges, int h, int w, int p, float scale) {
  launch(kernels::EdgeWeights{image, edges.x, edges.y, h, w, p, 1.0f / (16.0f * scale)});
}

void variational::diffusivity(const float* u, const float* v, const FPtmp& fp, int h, int w, int p,
                              const EdgePlanes& edges, float epsilon) {
  const float *du = fp.increment, *dv = du + device::planeFloats(h, p);
  if (edges.x != nullptr) {
    launch(kernels::TotalFlowDiffusivity<kernels::EdgePenalty<true>>{
        u, v, du, dv, fp.diffX, fp.diffY, h, w, p, {edges.x, edges.y, epsilon * epsilon}});
  } else if (epsilon != NFlow::Terms{}.smoothnessEpsilon) {
    launch(kernels::TotalFlowDiffusivity<kernels::EdgePenalty<false>>{
        u, v, du, dv, fp.diffX, fp.diffY, h, w, p, {nullptr, nullptr, epsilon * epsilon}});
  } else {
    gDiffusivity(u, v, du, dv, fp.diffX, fp.diffY, h, w, p);
  }
}
