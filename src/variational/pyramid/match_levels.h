#pragma once

#include <vector>

#include "device/memory.h"

namespace variational {

/// Device planes of a match field.
struct MatchField {
  const float *u, *v, *weight;
};

/// Weighted area averages of a match field, for one level of the pyramid after the other: the bits of
/// `downsample` with the weight on every plane, the displacements then multiplied by the level's scale. On
/// the CPU device it keeps a list of the pixels with a positive weight, a sixteenth of all or fewer, and
/// visits nothing else.
class MatchLevels {
 public:
  /// @param field  h x w, pitch p; a null weight: no matches, and build must not be called
  MatchLevels(const MatchField& field, int h, int w, int p) : field_(field), h_(h), w_(w), p_(p) {}

  /// Planes of outH x outW, pitch outP; not-a-number where no weight is positive.
  void build(float* u, float* v, float* weight, int outH, int outW, int outP, float scale);

 private:
  void buildOnCpu(float* u, float* v, float* weight, int outH, int outW, int outP, float scale);
  void listMatches();

  /// A pixel with a positive weight.
  struct Match {
    int x;
    float u, v, weight;
  };
  friend struct MatchAverage;

  MatchField field_;
  int h_, w_, p_;
  std::vector<Match> matches_;  // row by row; listed when the first level is built
  std::vector<int> rows_;       // first match of every row, and the number of matches
};

/// One level of a MatchLevels that is made for it alone. The tests hold it against `downsample`.
void averageMatches(const MatchField& field, int h, int w, int p, float* u, float* v, float* weight, int outH,
                    int outW, int outP, float scale);

}  // namespace variational
