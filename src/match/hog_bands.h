#pragma once

#include <cstddef>

namespace match {

/// Central difference, and mean over seven pixels.
constexpr float kDerivativeTaps[3] = {-0.5f, 0.0f, 0.5f};
constexpr float kMeanTap = 0x1.24924ap-3f;
constexpr int kMeanTaps = 7;

/// The CPU's own form of the histogram field with 15 sectors: one pass over the image, in bands of rows.
class HogBands {
 public:
  HogBands(const float* image, float* hog, int channels, int h, int w, int p);
  /// Floats of scratch that run needs.
  std::size_t scratchFloats() const;
  void run(float* scratch) const;

 private:
  const float* image_;
  float* hog_;
  int channels_, h_, w_, p_;
  int rows_;  ///< rows of a band
};

}  // namespace match
