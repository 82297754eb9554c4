#include "variational/flow/coarse_to_fine.h"

#include <tarvo/elementwise.h>
#include <tarvo/picture.h>
#include <tarvo/pyramid.h>
#include <tarvo/variational.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "device/report.h"
#include "device/stopwatch.h"
#include "variational/filter/weighted_median.h"
#include "variational/pyramid/enlarge_flow.h"
#include "variational/units.h"

namespace variational {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;
constexpr int kLevelPlanes = 3 + 1 + kPictureChannels;  // of CoarseToFine::LevelPlanes

/// Pitch of a pass: the input's at full resolution, else the device's own for the level's width.
int pitchOf(const Level& level, const FlowInput& input) {
  return level.clamped == 0 ? input.pitch : device::chosenPitch(level.w);
}

/// Floats of the largest plane of all passes.
std::size_t largestPlane(const FlowInput& input, float eta, int levels) {
  std::size_t largest = device::planeFloats(input.height, input.pitch);
  for (int index = 1; index <= levels; ++index) {
    const Level level = levelOf(index, input.height, input.width, eta);
    largest = std::max(largest, device::planeFloats(level.h, pitchOf(level, input)));
  }
  return largest;
}

/// Sizes of the passes above full resolution, the coarsest first.
std::vector<PictureLevels::Size> pictureSizes(const FlowInput& input, float eta, int levels) {
  std::vector<PictureLevels::Size> sizes;
  for (int index = levels; index > 0; --index) {
    const Level level = levelOf(index, input.height, input.width, eta);
    if (!level.skipped) sizes.push_back({level.h, level.w, pitchOf(level, input)});
  }
  return sizes;
}

// Standard deviations of the weights of the median: likeness of colour [grey levels], nearness [pixels].
constexpr float kMedianColour = 7.0f, kMedianDistance = 7.0f;

int edgePlanesOf(const FlowWeights& weights) {
  return weights.terms.edgeScale > 0.0f ? 2 : 0;
}

int knownPlanesOf(const FlowInput& input) {
  return input.known1 != nullptr ? 2 : 0;
}

}  // namespace

std::size_t coarseToFineFloats(int height, int width, int pitch, const FlowWeights& weights, bool known) {
  const FlowInput input{nullptr, nullptr, {}, height, width, pitch, kPictureChannels};
  const int levels = levelsAbove(height, width, weights.eta, weights.terms.leastSide);
  const std::size_t largest = largestPlane(input, weights.eta, levels);
  const std::size_t flows = 2 * 2;  // of two levels
  return (kLevelPlanes + static_cast<std::size_t>(edgePlanesOf(weights)) + (known ? 2 : 0) +
          Scratch::kPlanes + flows) *
             largest +
         PictureLevels(nullptr, nullptr, height, width, pitch, pictureSizes(input, weights.eta, levels))
             .floats();
}

CoarseToFine::LevelPlanes::LevelPlanes(std::size_t floats, int edgePlanes, int knownPlanes) {
  auto clock = TARVO_STOPWATCH(memcpy);
  for (device::Buffer* plane : {&matchU, &matchV, &matchWeight}) TARVO_CALL(plane->allocate(floats));
  device::synchronize();
  clock.stop();
  TARVO_CALL(valid.allocate(floats));
  TARVO_CALL(warped.allocate(kPictureChannels * floats));
  if (edgePlanes > 0) TARVO_CALL(edges.allocate(static_cast<std::size_t>(edgePlanes) * floats));
  if (knownPlanes > 0) TARVO_CALL(known.allocate(static_cast<std::size_t>(knownPlanes) * floats));
}

void CoarseToFine::LevelPlanes::release() {
  for (device::Buffer* buffer : {&matchU, &matchV, &matchWeight, &valid, &warped, &edges, &known}) {
    TARVO_CALL(buffer->release());
  }
}

CoarseToFine::CoarseToFine(const FlowInput& input, const FlowWeights& weights)
    : input_(input),
      weights_(weights),
      levels_(levelsAbove(input.height, input.width, weights.eta, weights.terms.leastSide)),
      planes_(largestPlane(input, weights.eta, levels_), edgePlanesOf(weights), knownPlanesOf(input)),
      scratch_(largestPlane(input, weights.eta, levels_)),
      pictures_(input.image1, input.image2, input.height, input.width, input.pitch,
                pictureSizes(input, weights.eta, levels_)),
      matches_(input.matches, input.height, input.width, input.pitch) {
  report::print("# scales = %d \n", levels_);
}

void CoarseToFine::run() {
  const int finalPasses = weights_.terms.finalPasses, passes = levels_ + 1 + finalPasses;
  for (int index = levels_; index >= -finalPasses; --index) {
    const Level level = levelOf(index, input_.height, input_.width, weights_.eta);
    if (level.skipped) {
      report::print("Increase eta or increase minimum dimension\n");
    } else {
      runPass(level);
    }
    report::progress(levels_ - index + 1, passes);
  }
}

void CoarseToFine::runPass(const Level& level) {
  const int p = pitchOf(level, input_);
  const bool first = level.clamped == levels_ || flow_.p == 0;

  auto down = TARVO_STOPWATCH(down);
  const Pictures pictures = picturesOf(level);
  const MatchField matches = matchesOf(level, p);
  device::synchronize();
  down.stop();
  TARVO_LAUNCHED("Input safe");

  auto interp_warp = TARVO_STOPWATCH(interp_warp);
  carryFlow(level, p, first);
  TARVO_LAUNCHED("u,v safe");
  const float* second = warp(level, p, pictures, first);
  device::synchronize();
  interp_warp.stop();

  correctFlow({pictures.first,
               second,
               planes_.valid.get(),
               {flow_.u.get(), flow_.v.get(), matches.u, matches.v, matches.weight, alphaOf(level),
                weights_.beta, weights_.gamma * level.scale, isNormalised(weights_.terms)},
               edgesOf(level, p, pictures),
               weights_.fixedPointIterations,
               weights_.solverIterations * (level.index < 0 ? 2 : 1),
               weights_.terms},
              flow_.u.get(), flow_.v.get(), level.h, level.w, p, input_.channels, scratch_.cg(),
              scratch_.fp());
  if (level.clamped == 0) removeOutliers(level, p, pictures);
}

float CoarseToFine::alphaOf(const Level& level) const {
  if (weights_.terms.coarseSmoothness == 0.0f) return weights_.alpha;
  return weights_.alpha * std::pow(level.scale, weights_.terms.coarseSmoothness);
}

EdgePlanes CoarseToFine::edgesOf(const Level& level, int p, const Pictures& pictures) {
  if (!(weights_.terms.edgeScale > 0.0f)) return {};
  const EdgePlanes edges{planes_.edges.get(), planes_.edges.get() + device::planeFloats(level.h, p)};
  if (level.index >= 0) edgeWeights(pictures.first, edges, level.h, level.w, p, weights_.terms.edgeScale);
  return edges;
}

void CoarseToFine::removeOutliers(const Level& level, int p, const Pictures& pictures) {
  if (weights_.terms.medianRadius == 0) return;
  Flow next = newFlow(level, p);
  weightedMedian(next.u.get(), next.v.get(), flow_.u.get(), flow_.v.get(), pictures.first,
                 planes_.valid.get(), level.h, level.w, p, weights_.terms.medianRadius, kMedianColour,
                 kMedianDistance);
  TARVO_CALL(flow_.u.release());
  TARVO_CALL(flow_.v.release());
  flow_ = std::move(next);
}

CoarseToFine::Pictures CoarseToFine::picturesOf(const Level& level) {
  if (level.index > 0) return pictures_.next();
  return {input_.image1, input_.image2};
}

MatchField CoarseToFine::matchesOf(const Level& level, int p) {
  if (input_.matches.weight == nullptr || level.index < 0) return {};  // no match counts
  if (level.index == 0) return input_.matches;
  float *u = planes_.matchU.get(), *v = planes_.matchV.get(), *weight = planes_.matchWeight.get();
  matches_.build(u, v, weight, level.h, level.w, p, level.scale);
  return {u, v, weight};
}

void CoarseToFine::carryFlow(const Level& level, int p, bool first) {
  if (!first && level.index < 0) return;  // goes on where the pass before has ended
  Flow next = newFlow(level, p);
  if (first) {
    setValue_kernel(next.u.get(), level.h, level.w, p, 0.0f);
    setValue_kernel(next.v.get(), level.h, level.w, p, 0.0f);
  } else {
    enlargeFlow(next.u.get(), next.v.get(), level.h, level.w, p, flow_.u.get(), flow_.v.get(), level.hPrev,
                level.wPrev, flow_.p, 1.0f / weights_.eta);
  }
  TARVO_CALL(flow_.u.release());
  TARVO_CALL(flow_.v.release());
  flow_ = std::move(next);
}

const float* CoarseToFine::warp(const Level& level, int p, const Pictures& pictures, bool first) {
  TARVO_LAUNCHED("gconf safe");
  const float* second = pictures.second;
  if (first) {
    setValue_kernel(planes_.valid.get(), level.h, level.w, p, 1.0f);
  } else {
    gWarpMotion(planes_.warped.get(), flow_.u.get(), flow_.v.get(), pictures.second, pictures.first,
                input_.channels, planes_.valid.get(), level.h, level.w, p);
    second = planes_.warped.get();
  }
  if (input_.known1 != nullptr) weighByKnown(level, p);
  TARVO_LAUNCHED("Warping safe");
  return second;
}

void CoarseToFine::weighByKnown(const Level& level, int p) {
  const float *known1 = input_.known1, *known2 = input_.known2;
  if (level.index > 0) {
    float* const shrunk1 = planes_.known.get();
    float* const shrunk2 = shrunk1 + device::planeFloats(level.h, p);
    downsample(known1, input_.height, input_.width, input_.pitch, shrunk1, level.h, level.w, p, nullptr);
    downsample(known2, input_.height, input_.width, input_.pitch, shrunk2, level.h, level.w, p, nullptr);
    known1 = shrunk1, known2 = shrunk2;
  }
  weighValid(planes_.valid.get(), {known1, known2, level.clamped == 0}, flow_.u.get(), flow_.v.get(), level.h,
             level.w, p);
}

void CoarseToFine::finish(float** u, float** v) {
  if (!flow_.whole || flow_.p != input_.pitch) {  // no pass ran at full resolution, or none at all
    toInputPitch(flow_.u);
    toInputPitch(flow_.v);
  }
  TARVO_LAUNCHED("ER");
  planes_.release();
  scratch_.release();
  pictures_.release();
  *u = flow_.u.detach();
  *v = flow_.v.detach();
}

CoarseToFine::Flow CoarseToFine::newFlow(const Level& level, int p) const {
  Flow flow;
  flow.p = p;
  flow.whole = level.clamped == 0;
  const std::size_t floats = device::planeFloats(level.h, p);
  for (device::Buffer* plane : {&flow.u, &flow.v}) {
    TARVO_CALL(flow.whole ? plane->allocateWhole(floats) : plane->allocate(floats));
  }
  return flow;
}

void CoarseToFine::toInputPitch(device::Buffer& plane) const {
  const int h = input_.height;
  const int w = input_.width;
  device::Buffer full;
  TARVO_CALL(full.allocateWhole(device::planeFloats(h, input_.pitch)));
  if (plane.get() != nullptr) {
    TARVO_CALL(device::copyPlanes(full.get(), input_.pitch, plane.get(), flow_.p, h, w, 1,
                                  device::Direction::OnDevice));
  } else {
    setValue_kernel(full.get(), h, w, input_.pitch, 0.0f);
  }
  TARVO_CALL(plane.release());
  plane = std::move(full);
}

}  // namespace variational
