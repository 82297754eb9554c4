#include <tarvo/elementwise.h>
#include <tarvo/filters.h>
#include <tarvo/picture.h>
#include <tarvo/pyramid.h>
#include <tarvo/variational.h>

#include "device/device.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "variational/flow/arguments.h"
#include "variational/flow/variational_flow.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

void printTimes() {
  report::print("Solver time = %f ms\n", timer_solver);
  report::print("MakeMatrix time = %f ms\n", timer_makematrix);
  report::print("Interp time = %f ms\n", timer_interp_warp);
  report::print("downsampling time = %f ms\n", timer_down);
}

void noticeSmoothing(float sigma) {
  if (sigma > 0.0f) report::print("Filters not yet implemented\n");
}

/// Host images and, where they are used, matches on the device.
struct UploadedInput {
  device::Buffer images[2], matches[3];
  variational::FlowInput input{};

  UploadedInput(const float* image1, const float* image2, const float* const* hostMatches, int height,
                int width) {
    int p = 0;
    TARVO_CALL(images[0].upload(&p, image1, height, width, kPictureChannels));
    TARVO_CALL(images[1].upload(&p, image2, height, width, kPictureChannels));
    for (int k = 0; k < 3 && hostMatches != nullptr; ++k) {
      TARVO_CALL(matches[k].upload(&p, hostMatches[k], height, width, 1));
    }
    device::synchronize();
    input = {images[0].get(), images[1].get(), {matches[0].get(), matches[1].get(), matches[2].get()},
             height,          width,           p,
             kPictureChannels};
  }
  void release() {
    for (device::Buffer& image : images) TARVO_CALL(image.release());
    for (device::Buffer& plane : matches) TARVO_CALL(plane.release());
  }
};

/// The scheme on host data; hostMatches is null where there are none.
void hostFlow(const float* image1, const float* image2, float* u, float* v, const float* const* hostMatches,
              int height, int width, float sigma, const variational::FlowWeights& weights) {
  const device::Entry entry;
  auto uploading = TARVO_STOPWATCH(memcpy);
  UploadedInput uploaded(image1, image2, hostMatches, height, width);
  uploading.stop();

  float* planes[2] = {nullptr, nullptr};
  variational::solveFlow(uploaded.input, weights, sigma, &planes[0], &planes[1]);
  device::Buffer flow[2] = {device::Buffer::adopt(planes[0]), device::Buffer::adopt(planes[1])};

  auto downloading = TARVO_STOPWATCH(memcpy);
  float* const hosts[2] = {u, v};
  for (int k = 0; k < 2; ++k) {
    TARVO_CALL(device::copyPlanes(hosts[k], width, flow[k].get(), uploaded.input.pitch, height, width, 1,
                                  device::Direction::ToHost));
  }
  device::synchronize();
  TARVO_LAUNCHED("ER");
  downloading.stop();
  for (device::Buffer& plane : flow) TARVO_CALL(plane.release());
  uploaded.release();
  report::print("memcpy time = %f ms\n", timer_memcpy);
}

}  // namespace

void variational::solveFlow(const FlowInput& input, const FlowWeights& weights, float sigma, float** u,
                            float** v) {
  CoarseToFine scheme(input, weights);
  noticeSmoothing(sigma);
  scheme.run();
  scheme.finish(u, v);
  printTimes();
}

void gVariationalFlowTarvo(float* image1, float* image2, float** uOut, float** vOut, float* matchU,
                           float* matchV, float* matchWeight, int /*candidates*/, int height, int width,
                           int pitch, int channels, float sigma, float alpha, float beta, float gamma,
                           float eta, int fixedPointIterations, int solverIterations, int /*reserved*/) {
  variational::solveFlow({image1, image2, {matchU, matchV, matchWeight}, height, width, pitch, channels},
                         {alpha, beta, gamma, eta, fixedPointIterations, solverIterations}, sigma, uOut,
                         vOut);
}

void variationalFlowTarvo(float* image1, float* image2, float* u, float* v, float* matchU, float* matchV,
                          float* matchWeight, int /*candidates*/, int height, int width, int channels,
                          float /*sigma*/, float alpha, float beta, float gamma, float eta,
                          int fixedPointIterations, int solverIterations, int /*reserved*/) {
  const variational::FlowWeights weights{alpha, beta, gamma, eta, fixedPointIterations, solverIterations};
  variational::checkSize("variationalFlowTarvo", "the pictures of width x height", height, width, channels);
  variational::checkWeights("variationalFlowTarvo", weights);
  const float* const matches[3] = {matchU, matchV, matchWeight};
  hostFlow(image1, image2, u, v, matches, height, width, 0.0f, weights);
}

void variationalFlow(float* image1, float* image2, float* u, float* v, float* /*matchU*/, float* /*matchV*/,
                     float* /*matchWeight*/, int /*candidates*/, int height, int width, int channels,
                     float sigma, float alpha, float beta, float gamma, float eta, int fixedPointIterations,
                     int solverIterations, int /*reserved*/) {
  const variational::FlowWeights weights{alpha, beta, gamma, eta, fixedPointIterations, solverIterations};
  variational::checkSize("variationalFlow", "the pictures of width x height", height, width, channels);
  variational::checkWeights("variationalFlow", weights);
  hostFlow(image1, image2, u, v, nullptr, height, width, sigma, weights);
}
