#pragma once

#include <tarvo/NFlow.h>

namespace variational {

/// Sizes and scale of one pass of the coarse-to-fine scheme.
struct Level {
  int index;         ///< S ... 0 for pyramid levels, negative for the further passes at full resolution
  int clamped;       ///< max(index, 0)
  float scale;       ///< eta^clamped
  int h, w;          ///< of the pass
  int hPrev, wPrev;  ///< of the next coarser level
  bool skipped;      ///< the sizes are those of the next coarser level: nothing happens
};

/// The further passes at full resolution, without the match term, unless a computation says otherwise.
constexpr int kFinalPasses = NFlow::Terms{}.finalPasses;
/// About the shorter side of the coarsest level [pixels], likewise.
constexpr float kLeastSide = NFlow::Terms{}.leastSide;

/// Number S of pyramid levels above full resolution: the shorter side shrinks to about leastSide.
int levelsAbove(int height, int width, float eta, float leastSide = kLeastSide);

/// Pass `index` of a picture of the given size; all in single precision.
Level levelOf(int index, int height, int width, float eta);

}  // namespace variational
