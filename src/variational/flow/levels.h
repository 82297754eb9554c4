#pragma once

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

/// The further passes at full resolution, without the match term.
constexpr int kFinalPasses = 5;
/// About the shorter side of the coarsest level [pixels].
constexpr double kLeastSide = 15.0;

/// Number S of pyramid levels above full resolution: the shorter side shrinks to about kLeastSide.
int levelsAbove(int height, int width, float eta);

/// Pass `index` of a picture of the given size; all in single precision.
Level levelOf(int index, int height, int width, float eta);

}  // namespace variational
