#include <tarvo/variational.h>

#include "device/launch.h"
#include "variational/flow/fixed_point_kernels.h"
#include "variational/flow/steps.h"

void DataFactor_kernel(const float* stData, const float* du, const float* dv, float* dataFactor, int h, int w,
                       int p) {
  launch(kernels::DataFactor_kernel{stData, du, dv, dataFactor, h, w, p});
}

void GradientFactor_kernel(const float* stGrad, const float* du, const float* dv, float* gradFactor, int h,
                           int w, int p, float gamma) {
  launch(kernels::GradientFactor_kernel{stGrad, du, dv, gradFactor, h, w, p, gamma});
}

void MatchFactor_kernel(const float* u, const float* v, const float* du, const float* dv, const float* matchU,
                        const float* matchV, const float* matchWeightIn, float* matchWeight, float* matchRhsU,
                        float* matchRhsV, int candidates, int h, int w, int p, float beta) {
  launch(kernels::MatchFactor_kernel{u, v, du, dv, matchU, matchV, matchWeightIn, matchWeight, matchRhsU,
                                     matchRhsV, candidates, h, w, p, beta});
}

void MakeMatrix_kernel(float* matrix, float* rhs, const float* dataFactor, const float* gradFactor,
                       const float* matchWeight, const float* stData, const float* stGrad,
                       const float* matchRhsU, const float* matchRhsV, const float* u, const float* v,
                       const float* diffX, const float* diffY, int h, int w, int p, float /*gamma*/,
                       float alpha) {
  launch(kernels::MakeMatrix_kernel{{matrix, rhs, stData, stGrad, u, v, diffX, diffY},
                                    dataFactor,
                                    gradFactor,
                                    matchWeight,
                                    matchRhsU,
                                    matchRhsV,
                                    h,
                                    w,
                                    p,
                                    alpha});
}

void MakeMatrix_dummy_kernel(float* matrix, float* rhs, const float* dataFactor, const float* gradFactor,
                             const float* matchWeight, const float* stData, const float* stGrad,
                             const float* matchRhsU, const float* matchRhsV, const float* u, const float* v,
                             const float* diffX, const float* diffY, int h, int w, int p, float /*gamma*/,
                             float alpha) {
  launch(kernels::MakeMatrix_dummy_kernel{{matrix, rhs, stData, stGrad, u, v, diffX, diffY},
                                          dataFactor,
                                          gradFactor,
                                          matchWeight,
                                          matchRhsU,
                                          matchRhsV,
                                          h,
                                          w,
                                          p,
                                          alpha});
}

namespace {

template <bool kMatches, bool kSingle>
void launchAssembly(const variational::Assembly& assembly, const FPtmp& fp, int h, int w, int p) {
  const float* du = fp.increment;
  const float* dv = fp.increment + static_cast<long>(h) * p;
  launch(kernels::AssembleSystem<kMatches, kSingle>{
      {fp.matrix, fp.rhs, fp.stData, fp.stGrad, assembly.u, assembly.v, fp.diffX, fp.diffY},
      du,
      dv,
      assembly.matchU,
      assembly.matchV,
      assembly.matchWeightIn,
      h,
      w,
      p,
      assembly.alpha,
      assembly.beta,
      assembly.gamma});
}

}  // namespace

void variational::assembleSystem(const Assembly& assembly, const FPtmp& fp, int h, int w, int p) {
  const bool matches = assembly.matchWeightIn != nullptr;
  if (assembly.single) {
    (matches ? launchAssembly<true, true> : launchAssembly<false, true>)(assembly, fp, h, w, p);
  } else {
    (matches ? launchAssembly<true, false> : launchAssembly<false, false>)(assembly, fp, h, w, p);
  }
}
