#pragma once

#include <functional>
#include <string>
#include <vector>

#include "flow_picture/flow_picture.h"
#include "frames/frames.h"
#include "sequence/manifest.h"
#include "sequence/pairs.h"
#include "sequence/panels.h"

namespace tool {

/// How the flows of a sequence are drawn.
struct FilmJob {
  std::string
      target;  ///< a clip of one of VideoWriter's kinds; or "png": a picture for each pair, color/NAME.png
  Wheel wheel = Wheel::Standard;
  std::string maxMotion =
      "auto";       ///< a number [pixels]; auto: the largest "p99" of all pairs; longest: of all flows
  double rate = 0;  ///< of the clip [1/s]; 0: that of the frames' times, kUsualRate where they have none
  std::vector<Panel> panels{Panel::Colour};

  static constexpr double kUsualRate = 25;
  bool has(Panel panel) const;
  /// Whether the frames themselves are wanted.
  bool needsFrames() const { return has(Panel::Frame) || has(Panel::Error); }
};

/// What was drawn.
struct Film {
  long pictures = 0;
  std::vector<std::string> leftOut;  ///< pairs, and why, one line each
  int width = 0, height = 0;
  double scale = 0;  ///< motion with full colours [pixels]
  double rate = 0;   ///< [1/s]
};

/// Draws the pairs that are done, all with one scale, one at a time: the flow forward, or backward where that alone
/// was computed, then on the second frame.
/// @param manifests  of the sequence
/// @param frames     the sequence's frames from the first on; null if they are not wanted
/// @throws std::runtime_error  naming the file, where one cannot be read or written, or if no pair is done
Film makeFilm(const FilmJob& film, const PairJob& job, const std::vector<Manifest>& manifests,
              std::unique_ptr<FrameSource> frames, const std::function<void()>& poll);

}  // namespace tool
