#include <tarvo/flow.h>

#include <utility>

#include "api/flow_job.h"
#include "device/device.h"
#include "device/report.h"

void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward, CTensor<float>& backward) {
  const NFlow::Parameters a;
  tarvo(std::move(image1), std::move(image2), forward, backward, a.sigma, a.alpha, a.beta, a.gamma, a.eta,
        a.fixedPointIterations, a.solverIterations);
}

void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward, CTensor<float>& backward,
           float sigma, float alpha, float beta, float gamma, float eta, int fixedPointIterations,
           int solverIterations) {
  const NFlow::Parameters parameters{sigma, alpha, beta, gamma, eta, fixedPointIterations, solverIterations};
  api::checkArguments("tarvo", image1, image2, parameters);
  const device::Entry entry;
  report::Runs runs(2);
  api::computeFlow(image1, image2, forward, parameters);
  runs.nextRun();
  api::computeFlow(image2, image1, backward, parameters);
}

void runFlowGPU(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow, float sigma,
                float alpha, float beta, float gamma, float eta, int fixedPointIterations,
                int solverIterations) {
  const NFlow::Parameters parameters{sigma, alpha, beta, gamma, eta, fixedPointIterations, solverIterations};
  api::checkArguments("runFlowGPU", image1, image2, parameters);
  const device::Entry entry;
  api::computeFlow(image1, image2, flow, parameters);
}
