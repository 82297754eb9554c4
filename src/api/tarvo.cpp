#include <tarvo/flow.h>

#include <utility>

#include "api/flow_job.h"
#include "device/device.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "match/match_steps.h"

namespace {

void computeFlow(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow,
                 const NFlow::Parameters& parameters) {
  NFlow::Options options;
  static_cast<NFlow::Parameters&>(options) = parameters;
  options.matches = api::matchingEnabled();
  device::chosenPitch(image1.sizeX());  // chooses and starts the device before any clock
  auto total = TARVO_STOPWATCH(total);
  api::smooth(image1, image2, parameters.sigma);
  const NMatching::Counts counts = api::computeFlow(
      {image1.data(), image2.data(), image1.sizeX(), image1.sizeY()}, options, flow, nullptr);
  if (options.matches) match::setCounts(counts);
  total.stop();
  api::printTimes();
}

}  // namespace

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
  computeFlow(image1, image2, forward, parameters);
  runs.nextRun();
  computeFlow(image2, image1, backward, parameters);
}

void runFlowGPU(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow, float sigma,
                float alpha, float beta, float gamma, float eta, int fixedPointIterations,
                int solverIterations) {
  const NFlow::Parameters parameters{sigma, alpha, beta, gamma, eta, fixedPointIterations, solverIterations};
  api::checkArguments("runFlowGPU", image1, image2, parameters);
  const device::Entry entry;
  computeFlow(image1, image2, flow, parameters);
}
