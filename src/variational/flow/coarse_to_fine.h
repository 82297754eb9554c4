#pragma once

#include <cstddef>

#include "device/memory.h"
#include "variational/flow/levels.h"
#include "variational/flow/scratch.h"
#include "variational/flow/weights.h"
#include "variational/pyramid/match_levels.h"
#include "variational/pyramid/picture_levels.h"

namespace variational {

/// Full-resolution input of the coarse-to-fine scheme: device stacks of three planes, and the match field.
struct FlowInput {
  const float *image1, *image2;
  const float *matchU, *matchV, *matchWeight;  ///< null: no matches
  int height, width, pitch, channels;
};

/// One flow computation from the coarsest level to the last pass at full resolution. Holds the scratch of the
/// whole call, the buffers of the current pass and the flow that moves from pass to pass.
class CoarseToFine {
 public:
  CoarseToFine(const FlowInput& input, const FlowWeights& weights);

  void run();

  /// Hands the flow to the caller, as planes of the input's pitch, and releases everything else.
  void finish(float** u, float** v);

 private:
  void allocateMatchPlanes();
  /// Makes the pool hold buffers that serve every level, so that the levels, each larger than the last, do
  /// not each ask the system for new ones.
  void reserveLevelBuffers();
  void runPass(const Level& level);
  void buildLevel(const Level& level);
  void buildMatches(const Level& level);
  void carryFlow(const Level& level, bool first);
  void prolongate(const Level& level);
  void warp(const Level& level, bool first);
  void releasePass();
  void toInputPitch(device::Buffer& plane);
  device::Code allocatePlanes(device::Buffer& buffer, const Level& level, int planes);

  FlowInput input_;
  FlowWeights weights_;
  int levels_;  ///< S
  std::size_t largest_;

  device::Buffer matchU_, matchV_, matchWeight_;  // of the level; sized for the largest
  Scratch scratch_;                               // allocated behind the match planes
  PictureLevels pictures_;
  MatchLevels matches_;

  // The current pass. Pictures point into pictures_ or, at full resolution, to the input.
  int p_ = 0;
  device::Buffer gconf_, warped_;
  const float *image1_ = nullptr, *image2_ = nullptr, *second_ = nullptr;
  const float *levelU_ = nullptr, *levelV_ = nullptr, *levelWeight_ = nullptr;  // null: no matches

  // The flow, of pitch flowPitch_; empty before the first pass.
  device::Buffer u_, v_;
  int flowPitch_ = 0;  // 0: none
};

}  // namespace variational
