#pragma once

#include <cstddef>

#include "device/memory.h"
#include "variational/flow/flow_weights.h"
#include "variational/flow/levels.h"
#include "variational/flow/scratch.h"
#include "variational/flow/steps.h"
#include "variational/pyramid/match_levels.h"
#include "variational/pyramid/picture_levels.h"

namespace variational {

/// Full-resolution input of the coarse-to-fine scheme: device stacks of three planes, and the match field.
struct FlowInput {
  const float *image1, *image2;
  MatchField matches;  ///< a null weight: no matches
  int height, width, pitch, channels;
  /// Planes of 1 where a picture is known and 0 elsewhere; both null: known everywhere.
  const float *known1 = nullptr, *known2 = nullptr;
};

/// Floats that a flow computation takes from the pool at one time, beside its input and the flow it returns.
/// @param known  whether the input has planes known1 and known2
std::size_t coarseToFineFloats(int height, int width, int pitch, const FlowWeights& weights,
                               bool known = false);

/// One flow computation from the coarsest level to the last pass at full resolution. Holds the buffers of the
/// whole call, each large enough for every level, and the flow that moves from pass to pass.
class CoarseToFine {
 public:
  CoarseToFine(const FlowInput& input, const FlowWeights& weights);

  void run();

  /// Hands the flow to the caller, as planes of the input's pitch, and releases everything else.
  void finish(float** u, float** v);

 private:
  using Pictures = PictureLevels::Pictures;

  /// Planes of one size; none before the first pass.
  struct Flow {
    device::Buffer u, v;
    int p = 0;
    bool whole = false;  ///< buffers that can be handed out
  };

  /// What the passes at reduced size make of the input and the flow.
  struct LevelPlanes {
    device::Buffer matchU, matchV, matchWeight;
    device::Buffer valid;   ///< 1 where the warp has found a source pixel
    device::Buffer warped;  ///< the second picture, moved by the flow
    device::Buffer edges;   ///< weights of the smoothness, two planes; empty without edgePlanes
    device::Buffer known;   ///< how much of either picture is known, two planes; empty without knownPlanes

    LevelPlanes(std::size_t floats, int edgePlanes, int knownPlanes);
    void release();
  };

  void runPass(const Level& level);
  Pictures picturesOf(const Level& level);
  MatchField matchesOf(const Level& level, int p);
  /// Makes the flow that the pass starts from: zero at first, later what the coarser pass has found.
  void carryFlow(const Level& level, int p, bool first);
  /// The second picture as the flow sees it, and where it is valid.
  const float* warp(const Level& level, int p, const Pictures& pictures, bool first);

  /// Has `valid` tell how far a pixel and the place that its flow leads to are known, if that is to be told.
  void weighByKnown(const Level& level, int p);

  float alphaOf(const Level& level) const;
  /// Made anew at every level, kept for the final passes.
  EdgePlanes edgesOf(const Level& level, int p, const Pictures& pictures);
  /// The weighted median of the flow, if there is to be one.
  void removeOutliers(const Level& level, int p, const Pictures& pictures);

  Flow newFlow(const Level& level, int p) const;
  void toInputPitch(device::Buffer& plane) const;

  FlowInput input_;
  FlowWeights weights_;
  int levels_;  ///< S
  LevelPlanes planes_;
  Scratch scratch_;
  PictureLevels pictures_;
  MatchLevels matches_;
  Flow flow_;
};

}  // namespace variational
