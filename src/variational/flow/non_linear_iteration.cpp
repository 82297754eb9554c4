#include <tarvo/elementwise.h>
#include <tarvo/picture.h>
#include <tarvo/tensors.h>
#include <tarvo/variational.h>

#include "device/device.h"
#include "device/memory.h"
#include "device/stopwatch.h"
#include "variational/flow/scratch.h"
#include "variational/flow/steps.h"
#include "variational/solver/solve_system.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

constexpr float kOmega = 1.85f;  // of the relaxation

/// Solves the assembled system for the increment.
void solve(const variational::Pass& pass, const FPtmp& fp, int h, int w, int p, const CGtmp& cg) {
  auto solver = TARVO_STOPWATCH(solver);
  if (pass.terms.solver == NFlow::Solver::Relaxation) {
    variational::relaxSystem(fp, h, w, p, pass.solverIterations, kOmega);
  } else {
    variational::solveSystem(fp, h, w, p, pass.solverIterations, cg);
  }
  device::synchronize();
  solver.stop();
  TARVO_LAUNCHED("Solve");
}

}  // namespace

void variational::correctFlow(const Pass& pass, float* u, float* v, int h, int w, int p, int channels,
                              const CGtmp& cg, const FPtmp& fp) {
  auto makematrix = TARVO_STOPWATCH(makematrix);
  const std::size_t n = device::planeFloats(h, p);
  TARVO_CALL(device::clear(fp.increment, 2 * n * sizeof(float)));

  structureTensors(pass.image1, pass.warped2, fp, pass.valid, h, w, p, channels, pass.terms);
  for (int k = 0; k < pass.fixedPointIterations; ++k) {
    diffusivity(u, v, fp, h, w, p, pass.edges, pass.terms.smoothnessEpsilon);
    assembleSystem(pass.assembly, fp, h, w, p);
    solve(pass, fp, h, w, p, cg);
  }
  TARVO_LAUNCHED("Iterations");
  Add_kernel(u, fp.increment, h, w, p);
  Add_kernel(v, fp.increment + n, h, w, p);
  device::synchronize();
  makematrix.stop();
}

void gNonLinearIteration(float* image1, float* warped2, float* gconf, float* matchU, float* matchV,
                         float* matchWeightIn, int /*candidates*/, float* u, float* v, int h, int w, int p,
                         int channels, float alpha, float beta, float gamma, int fixedPointIterations,
                         int solverIterations, float /*reserved*/, CGtmp cg, FPtmp fp) {
  variational::correctFlow({image1,
                            warped2,
                            gconf,
                            {u, v, matchU, matchV, matchWeightIn, alpha, beta, gamma},
                            {},
                            fixedPointIterations,
                            solverIterations,
                            {}},
                           u, v, h, w, p, channels, cg, fp);
}

void NonLinearIteration(float* image1, float* warped2, float* gconf, float* matchU, float* matchV,
                        float* matchWeightIn, int candidates, float* u, float* v, int h, int w, float alpha,
                        float beta, float gamma, int fixedPointIterations, int solverIterations,
                        float reserved) {
  const device::Entry entry;
  device::Buffer images[2], matches[3], validity, flow[2];
  int p = 0;
  const auto upload = [&](device::Buffer& buffer, const float* host, int planes) {
    TARVO_CALL(buffer.upload(&p, host, h, w, planes));
  };
  upload(images[0], image1, kPictureChannels);
  upload(images[1], warped2, kPictureChannels);
  upload(validity, gconf, 1);
  upload(matches[0], matchU, candidates);
  upload(matches[1], matchV, candidates);
  upload(matches[2], matchWeightIn, candidates);
  upload(flow[0], u, 1);
  upload(flow[1], v, 1);
  variational::Scratch scratch(device::planeFloats(h, p));

  gNonLinearIteration(images[0].get(), images[1].get(), validity.get(), matches[0].get(), matches[1].get(),
                      matches[2].get(), candidates, flow[0].get(), flow[1].get(), h, w, p, kPictureChannels,
                      alpha, beta, gamma, fixedPointIterations, solverIterations, reserved, scratch.cg(),
                      scratch.fp());
  TARVO_LAUNCHED("Iterations");  // the additions of the increment

  TARVO_CALL(device::copyPlanes(u, w, flow[0].get(), p, h, w, 1, device::Direction::ToHost));
  TARVO_CALL(device::copyPlanes(v, w, flow[1].get(), p, h, w, 1, device::Direction::ToHost));
  scratch.release();
  for (device::Buffer* buffer :
       {&images[0], &images[1], &validity, &matches[0], &matches[1], &matches[2], &flow[0], &flow[1]}) {
    TARVO_CALL(buffer->release());
  }
}
