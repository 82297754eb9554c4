#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "frames/frames.h"

/// Clips, read and written by the program ffmpeg, which runs beside this one.
namespace tool {

/// @throws std::runtime_error  saying what is needed, if there is no ffmpeg and ffprobe of version 5.1 or newer
void checkFfmpeg();

/// Whether the name's ending is one of a clip.
bool looksLikeVideo(const std::string& path);

/// The part of a clip that is wanted [s]: start <= time < stop.
struct VideoOptions {
  std::optional<double> start, stop;
};

/// Frames of a clip, turned as the clip says. They are named by their number in six digits, counted from 0 in
/// what is read, and have times.
class VideoSource : public FrameSource {
 public:
  /// Whether frames have values finer than 8 bits: multiples of 1 / 257.
  virtual bool sixteenBits() const = 0;
};

/// Opens the first video stream of a clip.
/// @param path      of a plain file, whatever its name looks like
/// @param messages  what should be known about the clip is appended, one line each; may be null
/// @throws std::runtime_error     naming the file, if it is not there or has no video, or as checkFfmpeg does
/// @throws std::invalid_argument  for a negative start, or a stop that does not come after it
std::unique_ptr<VideoSource> openVideo(const std::string& path, const VideoOptions& options,
                                       std::vector<std::string>* messages = nullptr);

}  // namespace tool
