#include <tarvo/flow.h>

#include "api/flow_job.h"
#include "device/device.h"
#include "device/report.h"

void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward, CTensor<float>& backward) {
  tarvo(std::move(image1), std::move(image2), forward, backward, 0.0f, 30.0f, 300.0f, 5.0f, 0.95f, 5, 10);
}

void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward, CTensor<float>& backward,
           float sigma, float alpha, float beta, float gamma, float eta, int fixedPointIterations,
           int solverIterations) {
  const api::FlowParameters parameters{sigma,
                                       {alpha, beta, gamma, eta, fixedPointIterations, solverIterations}};
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
  const api::FlowParameters parameters{sigma,
                                       {alpha, beta, gamma, eta, fixedPointIterations, solverIterations}};
  api::checkArguments("runFlowGPU", image1, image2, parameters);
  const device::Entry entry;
  api::computeFlow(image1, image2, flow, parameters);
}
