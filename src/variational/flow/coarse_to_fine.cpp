#include "variational/flow/coarse_to_fine.h"

#include <tarvo/elementwise.h>
#include <tarvo/pyramid.h>
#include <tarvo/variational.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "device/report.h"
#include "device/stopwatch.h"
#include "variational/pyramid/enlarge_flow.h"
#include "variational/units.h"

namespace variational {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;
constexpr int kChannels = 3;

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

/// The fixed-point step takes its read-only planes as plain pointers.
float* readOnly(const float* plane) {
  return const_cast<float*>(plane);
}

}  // namespace

CoarseToFine::CoarseToFine(const FlowInput& input, const FlowWeights& weights)
    : input_(input),
      weights_(weights),
      levels_(levelsAbove(input.height, input.width, weights.eta)),
      largest_(largestPlane(input, weights.eta, levels_)),
      scratch_((allocateMatchPlanes(), largest_)),
      pictures_(input.image1, input.image2, input.height, input.width, input.pitch,
                pictureSizes(input, weights.eta, levels_)),
      matches_({input.matchU, input.matchV, input.matchWeight}, input.height, input.width, input.pitch) {
  reserveLevelBuffers();
}

void CoarseToFine::allocateMatchPlanes() {
  auto memcpy = TARVO_STOPWATCH(memcpy);
  for (device::Buffer* plane : {&matchU_, &matchV_, &matchWeight_}) TARVO_CALL(plane->allocate(largest_));
  device::synchronize();
  memcpy.stop();
  report::print("# scales = %d \n", levels_);
}

void CoarseToFine::reserveLevelBuffers() {
  // What the passes at full resolution hold at one time: warped picture and first derivatives, and single
  // planes for the flow and the flow that is being enlarged, or for flow and validity.
  constexpr int kPlanes[] = {kChannels, 3 * kChannels, 1, 1, 1, 1};
  device::Buffer buffers[std::size(kPlanes)];
  for (std::size_t k = 0; k < std::size(kPlanes); ++k) {
    TARVO_CALL(buffers[k].allocate(static_cast<std::size_t>(kPlanes[k]) * largest_));
  }
  for (device::Buffer& buffer : buffers) TARVO_CALL(buffer.release());
}

void CoarseToFine::run() {
  const int passes = levels_ + 1 + kFinalPasses;
  for (int index = levels_; index >= -kFinalPasses; --index) {
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
  const bool first = level.clamped == levels_ || u_.get() == nullptr;
  p_ = pitchOf(level, input_);
  buildLevel(level);

  auto interp_warp = TARVO_STOPWATCH(interp_warp);
  carryFlow(level, first);
  TARVO_LAUNCHED("u,v safe");
  warp(level, first);
  device::synchronize();
  interp_warp.stop();

  const int solverIterations = weights_.solverIterations * (level.index < 0 ? 2 : 1);
  gNonLinearIteration(readOnly(image1_), readOnly(second_), gconf_.get(), readOnly(levelU_),
                      readOnly(levelV_), readOnly(levelWeight_), 1, u_.get(), v_.get(), level.h, level.w, p_,
                      input_.channels, weights_.alpha, weights_.beta, weights_.gamma * level.scale,
                      weights_.fixedPointIterations, solverIterations, 1.0f, scratch_.cg(), scratch_.fp());
  releasePass();
}

void CoarseToFine::buildLevel(const Level& level) {
  auto down = TARVO_STOPWATCH(down);
  if (level.index > 0) {
    const PictureLevels::Pictures pictures = pictures_.next();
    image1_ = pictures.first;
    image2_ = pictures.second;
  } else {
    image1_ = input_.image1;
    image2_ = input_.image2;
  }
  buildMatches(level);
  device::synchronize();
  down.stop();
  TARVO_LAUNCHED("Input safe");
}

void CoarseToFine::buildMatches(const Level& level) {
  if (input_.matchWeight == nullptr || level.index < 0) {
    levelU_ = levelV_ = levelWeight_ = nullptr;  // no match counts
    return;
  }
  levelU_ = matchU_.get();
  levelV_ = matchV_.get();
  levelWeight_ = matchWeight_.get();
  if (level.index == 0) {
    levelU_ = input_.matchU;
    levelV_ = input_.matchV;
    levelWeight_ = input_.matchWeight;
    return;
  }
  matches_.build(matchU_.get(), matchV_.get(), matchWeight_.get(), level.h, level.w, p_, level.scale);
}

void CoarseToFine::carryFlow(const Level& level, bool first) {
  if (first) {
    for (device::Buffer* plane : {&u_, &v_}) {
      TARVO_CALL(plane->release());
      TARVO_CALL(allocatePlanes(*plane, level, 1));
      setValue_kernel(plane->get(), level.h, level.w, p_, 0.0f);
    }
  } else if (level.index >= 0) {
    prolongate(level);
  }
  flowPitch_ = p_;
}

void CoarseToFine::prolongate(const Level& level) {
  device::Buffer finerU, finerV;
  TARVO_CALL(allocatePlanes(finerU, level, 1));
  TARVO_CALL(allocatePlanes(finerV, level, 1));
  enlargeFlow(finerU.get(), finerV.get(), level.h, level.w, p_, u_.get(), v_.get(), level.hPrev, level.wPrev,
              flowPitch_, 1.0f / weights_.eta);
  TARVO_CALL(u_.release());
  TARVO_CALL(v_.release());
  u_ = std::move(finerU);
  v_ = std::move(finerV);
}

void CoarseToFine::warp(const Level& level, bool first) {
  TARVO_CALL(allocatePlanes(gconf_, level, 1));
  TARVO_LAUNCHED("gconf safe");
  if (first) {
    setValue_kernel(gconf_.get(), level.h, level.w, p_, 1.0f);
    second_ = image2_;
  } else {
    TARVO_CALL(allocatePlanes(warped_, level, input_.channels));
    gWarpMotion(warped_.get(), u_.get(), v_.get(), image2_, image1_, input_.channels, gconf_.get(), level.h,
                level.w, p_);
    second_ = warped_.get();
  }
  TARVO_LAUNCHED("Warping safe");
}

void CoarseToFine::releasePass() {
  for (device::Buffer* buffer : {&gconf_, &warped_}) TARVO_CALL(buffer->release());
}

void CoarseToFine::finish(float** u, float** v) {
  if (flowPitch_ != input_.pitch) {  // no pass ran at full resolution, or none at all
    toInputPitch(u_);
    toInputPitch(v_);
  }
  TARVO_LAUNCHED("ER");
  for (device::Buffer* plane : {&matchU_, &matchV_, &matchWeight_}) TARVO_CALL(plane->release());
  scratch_.release();
  pictures_.release();
  *u = u_.detach();
  *v = v_.detach();
}

void CoarseToFine::toInputPitch(device::Buffer& plane) {
  const int h = input_.height;
  const int w = input_.width;
  device::Buffer full;
  TARVO_CALL(full.allocate(device::planeFloats(h, input_.pitch)));
  if (plane.get() != nullptr) {
    TARVO_CALL(device::copyPlanes(full.get(), input_.pitch, plane.get(), flowPitch_, h, w, 1,
                                  device::Direction::OnDevice));
  } else {
    setValue_kernel(full.get(), h, w, input_.pitch, 0.0f);
  }
  TARVO_CALL(plane.release());
  plane = std::move(full);
}

device::Code CoarseToFine::allocatePlanes(device::Buffer& buffer, const Level& level, int planes) {
  return buffer.allocate(device::planeFloats(level.h, p_, planes));
}

}  // namespace variational
