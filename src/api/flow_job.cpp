#include "api/flow_job.h"

#include <tarvo/NFilter.h>
#include <tarvo/matching.h>
#include <tarvo/variational.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>

#include "device/device.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "match/match_steps.h"
#include "variational/flow/arguments.h"
#include "variational/flow/coarse_to_fine.h"

namespace api {
namespace {

constexpr const char* kUnit = "tarvo";

std::atomic<bool> matchingOn{true};

/// Device buffers of one computation.
struct DeviceFlow {
  device::Buffer image1, image2, matchU, matchV, matchWeight, u, v;
  int h = 0, w = 0, p = 0, channels = 0;
};

/// Has the pool hold all that the computation takes at one time, so that its stages share it.
void reserve(DeviceFlow& job, float eta) {
  job.p = device::chosenPitch(job.w);
  const std::size_t input = device::planeFloats(job.h, job.p, 3 + 3 + 3);
  const std::size_t solving = variational::coarseToFineFloats(job.h, job.w, job.p, eta);
  const std::size_t matching = matchingOn ? match::matchingFloats(job.h, job.w, job.p) : 0;
  TARVO_CALL(device::reserve(input + std::max(matching, solving)));
}

void upload(DeviceFlow& job, const CTensor<float>& image1, const CTensor<float>& image2) {
  auto memcpy1 = TARVO_STOPWATCH(memcpy1);
  TARVO_CALL(job.image1.upload(&job.p, image1.data(), job.h, job.w, job.channels));
  TARVO_CALL(job.image2.upload(&job.p, image2.data(), job.h, job.w, job.channels));
  for (device::Buffer* plane : {&job.matchU, &job.matchV, &job.matchWeight}) {
    TARVO_CALL(plane->allocate(device::planeFloats(job.h, job.p)));
  }
  memcpy1.stop();
}

void match(DeviceFlow& job) {
  auto HOG = TARVO_STOPWATCH(HOG);
  if (matchingOn) {
    gCreateAndMatchHOG(job.image1.get(), job.image2.get(), job.matchU.get(), job.matchV.get(),
                       job.matchWeight.get(), job.h, job.w, job.p, job.channels);
  } else {
    for (device::Buffer* plane : {&job.matchU, &job.matchV, &job.matchWeight}) {
      TARVO_CALL(device::clear(plane->get(), device::planeFloats(job.h, job.p) * sizeof(float)));
    }
  }
  HOG.stop();
}

void solve(DeviceFlow& job, const NFlow::Parameters& a) {
  auto var = TARVO_STOPWATCH(var);
  float *u = nullptr, *v = nullptr;
  gVariationalFlowTarvo(job.image1.get(), job.image2.get(), &u, &v, job.matchU.get(), job.matchV.get(),
                        job.matchWeight.get(), 1, job.h, job.w, job.p, job.channels, 0.0f, a.alpha, a.beta,
                        a.gamma, a.eta, a.fixedPointIterations, a.solverIterations, 1);
  job.u = device::Buffer::adopt(u);
  job.v = device::Buffer::adopt(v);
  var.stop();
}

void download(const DeviceFlow& job, CTensor<float>& flow) {
  auto memcpy1 = TARVO_STOPWATCH(memcpy1);
  CTensor<float> result(job.w, job.h, 2, 0.0f);
  const std::size_t pixels = static_cast<std::size_t>(job.w) * static_cast<std::size_t>(job.h);
  const float* const planes[2] = {job.u.get(), job.v.get()};
  for (std::size_t k = 0; k < 2; ++k) {
    TARVO_CALL(device::copyPlanes(result.data() + k * pixels, job.w, planes[k], job.p, job.h, job.w, 1,
                                  device::Direction::ToHost));
  }
  flow = result;  // a copy: an array of as many elements stays where the caller has pointers into it
  memcpy1.stop();
}

void release(DeviceFlow& job) {
  for (device::Buffer* buffer :
       {&job.image1, &job.image2, &job.u, &job.v, &job.matchU, &job.matchV, &job.matchWeight}) {
    TARVO_CALL(buffer->release());
  }
}

void printTimes() {
  report::print("Memcpy time = %f \n", timer_memcpy1);
  report::print("Filter time = %f \n", timer_filter);
  report::print("HOG time = %f \n", timer_HOG);
  report::print("Var time = %f \n", timer_var);
  report::print("Total time = %f \n", timer_total);
}

std::string sizeOf(const CTensor<float>& image) {
  std::ostringstream text;
  text << image.sizeX() << " x " << image.sizeY() << " x " << image.sizeZ();
  return text.str();
}

}  // namespace

void checkArguments(const char* function, const CTensor<float>& image1, const CTensor<float>& image2,
                    const NFlow::Parameters& parameters) {
  if (image1.sizeX() != image2.sizeX() || image1.sizeY() != image2.sizeY() ||
      image1.sizeZ() != image2.sizeZ()) {
    throw std::invalid_argument(std::string(function) + ": image1 and image2 must have the same size, got " +
                                sizeOf(image1) + " and " + sizeOf(image2));
  }
  variational::checkSize(function, "image1 and image2", image1.sizeY(), image1.sizeX(), image1.sizeZ());
  if (std::isinf(parameters.sigma) && parameters.sigma > 0.0f) {
    throw std::invalid_argument(std::string(function) + ": sigma must be finite, got inf");
  }
  variational::checkWeights(function, {parameters.alpha, parameters.beta, parameters.gamma, parameters.eta,
                                       parameters.fixedPointIterations, parameters.solverIterations});
}

void smooth(CTensor<float>& image1, CTensor<float>& image2, float sigma) {
  auto filter = TARVO_STOPWATCH(filter);
  if (sigma > 0.0f) {
    for (CTensor<float>* image : {&image1, &image2}) {
      NFilter::recursiveSmoothX(*image, sigma);
      NFilter::recursiveSmoothY(*image, sigma);
    }
  }
  filter.stop();
}

bool matchingEnabled() {
  return matchingOn;
}

void computeFlow(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow,
                 const NFlow::Parameters& parameters) {
  device::chosenPitch(image1.sizeX());  // chooses and starts the device before any clock
  auto total = TARVO_STOPWATCH(total);
  smooth(image1, image2, parameters.sigma);
  DeviceFlow job;
  job.h = image1.sizeY();
  job.w = image1.sizeX();
  job.channels = image1.sizeZ();
  reserve(job, parameters.eta);
  upload(job, image1, image2);
  match(job);
  solve(job, parameters);
  download(job, flow);
  release(job);
  total.stop();
  printTimes();
}

}  // namespace api

void NMatching::enable(bool on) {
  api::matchingOn = on;
}
