#include "api/flow_job.h"

#include <tarvo/NFilter.h>
#include <tarvo/matching.h>
#include <tarvo/picture.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "device/device.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "device/watch.h"
#include "match/match_sizes.h"
#include "match/match_steps.h"
#include "variational/flow/arguments.h"
#include "variational/flow/variational_flow.h"

namespace api {
namespace {

constexpr const char* kUnit = "tarvo";

std::atomic<bool> matchingOn{true};

/// Device buffers of one computation.
struct DeviceFlow {
  device::Buffer image1, image2, matchU, matchV, matchWeight, u, v;
  device::Buffer known1, known2;  // empty: known everywhere
  int h = 0, w = 0, p = 0;
};

variational::FlowWeights weightsOf(const NFlow::Options& options) {
  return {options.alpha,
          options.beta,
          options.gamma,
          options.eta,
          options.fixedPointIterations,
          options.solverIterations,
          options};
}

/// What a computation takes from the pool at one time.
std::size_t pooledFloats(int w, int h, const NFlow::Options& options, bool known) {
  const int p = device::chosenPitch(w);
  const std::size_t input = device::planeFloats(h, p, 3 + 3 + 3 + (known ? 2 : 0));
  const std::size_t solving = variational::coarseToFineFloats(h, w, p, weightsOf(options), known);
  const std::size_t matching = options.matches ? match::matchingFloats(h, w, p) : 0;
  return input + std::max(matching, solving);
}

/// Has the pool hold all that the computation takes at one time, so that its stages share it.
void reserve(DeviceFlow& job, const NFlow::Options& options, bool known) {
  job.p = device::chosenPitch(job.w);
  TARVO_CALL(device::reserve(pooledFloats(job.w, job.h, options, known)));
}

void upload(DeviceFlow& job, const Pictures& pictures) {
  auto memcpy1 = TARVO_STOPWATCH(memcpy1);
  TARVO_CALL(job.image1.upload(&job.p, pictures.image1, job.h, job.w, kPictureChannels));
  TARVO_CALL(job.image2.upload(&job.p, pictures.image2, job.h, job.w, kPictureChannels));
  for (device::Buffer* plane : {&job.matchU, &job.matchV, &job.matchWeight}) {
    TARVO_CALL(plane->allocate(device::planeFloats(job.h, job.p)));
  }
  if (pictures.known1 != nullptr) {
    TARVO_CALL(job.known1.upload(&job.p, pictures.known1, job.h, job.w, 1));
    TARVO_CALL(job.known2.upload(&job.p, pictures.known2, job.h, job.w, 1));
  }
  memcpy1.stop();
}

/// Adds what only the shrunk pictures show.
void extendMatches(DeviceFlow& job, int sizes) {
  for (int octave = 1; octave < sizes && match::hasShrunkPoints(octave, job.h, job.w); ++octave) {
    device::Buffer u, v, weight;
    for (device::Buffer* plane : {&u, &v, &weight}) {
      TARVO_CALL(plane->allocate(device::planeFloats(job.h, job.p)));
    }
    match::mergeShrunk(job.image1.get(), job.image2.get(),
                       {job.matchU.get(), job.matchV.get(), job.matchWeight.get()},
                       {u.get(), v.get(), weight.get()}, octave, job.h, job.w, job.p);
    std::swap(u, job.matchU);
    std::swap(v, job.matchV);
    std::swap(weight, job.matchWeight);
    for (device::Buffer* plane : {&u, &v, &weight}) TARVO_CALL(plane->release());
  }
}

/// Takes the weight from matches that fewer than `least` neighbours share.
void dropLone(DeviceFlow& job, int spacing, int least) {
  device::Buffer kept;
  TARVO_CALL(kept.allocate(device::planeFloats(job.h, job.p)));
  match::dropLone(kept.get(), job.matchWeight.get(), job.matchU.get(), job.matchV.get(), spacing, least,
                  job.h, job.w, job.p);
  std::swap(kept, job.matchWeight);
  TARVO_CALL(kept.release());
}

NMatching::Counts match(DeviceFlow& job, const NFlow::Options& options) {
  auto HOG = TARVO_STOPWATCH(HOG);
  NMatching::Counts counts{};
  if (options.matches) {
    counts = match::createAndMatch(job.image1.get(), job.image2.get(), job.matchU.get(), job.matchV.get(),
                                   job.matchWeight.get(), job.h, job.w, job.p, kPictureChannels,
                                   options.matchSpacing);
    extendMatches(job, options.matchSizes);
    if (job.known1.get() != nullptr) {
      match::dropUnknown(job.matchWeight.get(), job.matchU.get(), job.matchV.get(), job.known1.get(),
                         job.known2.get(), job.h, job.w, job.p);
    }
    if (options.matchSupport > 0) dropLone(job, options.matchSpacing, options.matchSupport);
  } else {
    for (device::Buffer* plane : {&job.matchU, &job.matchV, &job.matchWeight}) {
      TARVO_CALL(device::clear(plane->get(), device::planeFloats(job.h, job.p) * sizeof(float)));
    }
  }
  HOG.stop();
  return counts;
}

void solve(DeviceFlow& job, const NFlow::Options& options) {
  auto var = TARVO_STOPWATCH(var);
  float *u = nullptr, *v = nullptr;
  variational::solveFlow({job.image1.get(),
                          job.image2.get(),
                          {job.matchU.get(), job.matchV.get(), job.matchWeight.get()},
                          job.h,
                          job.w,
                          job.p,
                          kPictureChannels,
                          job.known1.get(),
                          job.known2.get()},
                         weightsOf(options), 0.0f, &u, &v);
  job.u = device::Buffer::adopt(u);
  job.v = device::Buffer::adopt(v);
  var.stop();
}

/// Planes of a computation, one behind the other.
CTensor<float> fetch(const DeviceFlow& job, std::initializer_list<const device::Buffer*> planes) {
  CTensor<float> result(job.w, job.h, static_cast<int>(planes.size()), 0.0f);
  float* to = result.data();
  for (const device::Buffer* plane : planes) {
    TARVO_CALL(
        device::copyPlanes(to, job.w, plane->get(), job.p, job.h, job.w, 1, device::Direction::ToHost));
    to += device::planeFloats(job.h, job.w);
  }
  return result;
}

void download(const DeviceFlow& job, CTensor<float>& flow) {
  auto memcpy1 = TARVO_STOPWATCH(memcpy1);
  const CTensor<float> result = fetch(job, {&job.u, &job.v});
  flow = result;  // a copy: an array of as many elements stays where the caller has pointers into it
  memcpy1.stop();
}

void downloadMatches(const DeviceFlow& job, std::vector<NFlow::Match>& matches) {
  auto memcpy1 = TARVO_STOPWATCH(memcpy1);
  const CTensor<float> field = fetch(job, {&job.matchU, &job.matchV, &job.matchWeight});
  for (int y = 0; y < job.h; ++y) {
    for (int x = 0; x < job.w; ++x) {
      if (!(field(x, y, 2) > 0.0f)) continue;
      matches.push_back(
          {static_cast<float>(x), static_cast<float>(y), field(x, y, 0), field(x, y, 1), field(x, y, 2)});
    }
  }
  memcpy1.stop();
}

void release(DeviceFlow& job) {
  for (device::Buffer* buffer : {&job.image1, &job.image2, &job.known1, &job.known2, &job.u, &job.v,
                                 &job.matchU, &job.matchV, &job.matchWeight}) {
    TARVO_CALL(buffer->release());
  }
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
      device::poll();
      NFilter::recursiveSmoothY(*image, sigma);
      device::poll();
    }
  }
  filter.stop();
}

bool matchingEnabled() {
  return matchingOn;
}

std::size_t deviceFloats(int w, int h, const NFlow::Options& options) {
  // The flows of the last two steps at full resolution are whole buffers beside the pool.
  const int wholes = options.medianRadius > 0 ? 4 : 2;
  constexpr int kBeside = 3;                 // the warp's copy of a picture
  constexpr std::size_t kGaps = 256 * 1024;  // between the pool's pieces, in all
  return pooledFloats(w, h, options, false) +
         device::planeFloats(h, device::chosenPitch(w), wholes + kBeside) + kGaps;
}

NMatching::Counts computeFlow(const Pictures& pictures, const NFlow::Options& options, CTensor<float>& flow,
                              std::vector<NFlow::Match>* matches) {
  DeviceFlow job;
  job.h = pictures.h;
  job.w = pictures.w;
  reserve(job, options, pictures.known1 != nullptr);
  upload(job, pictures);
  const NMatching::Counts counts = match(job, options);
  if (matches != nullptr && options.matches) downloadMatches(job, *matches);
  solve(job, options);
  download(job, flow);
  release(job);
  return counts;
}

void printTimes() {
  report::print("Memcpy time = %f \n", timer_memcpy1);
  report::print("Filter time = %f \n", timer_filter);
  report::print("HOG time = %f \n", timer_HOG);
  report::print("Var time = %f \n", timer_var);
  report::print("Total time = %f \n", timer_total);
}

}  // namespace api

void NMatching::enable(bool on) {
  api::matchingOn = on;
}
