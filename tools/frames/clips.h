#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "frames/frames.h"

namespace tool {

/// Frames that belong together: picture files, or a source that has to be read from its start.
struct Clip {
  enum class Kind { Files, Stream, Video };
  Kind kind;
  std::string input;               ///< as the user named it
  std::string name;                ///< for a folder of its results: of a folder or file, without ending
  std::vector<std::string> files;  ///< of Files
};

/// What the user's inputs mean: a folder (its pictures in natural order; other files are passed over), a
/// pattern (frame%04d.png, or with * ? [ ]), a list (.txt: a path on each line, relative to the list's folder;
/// # starts a comment), a video file, or - for PGM and PPM pictures on standard input is a clip each; picture files are one
/// clip in their given order.
/// @param messages  what should be known (missing numbers, files passed over), one line each, is appended
/// @throws std::runtime_error  naming the input: if it does not exist or is nothing of these, if pictures and
///                             other inputs are mixed, if two frames of a clip have the same name
std::vector<Clip> findClips(const std::vector<std::string>& inputs, std::vector<std::string>& messages);

/// Frames that are used: number first, first + step, ... before last.
struct Selection {
  long first = 0, last = -1;  ///< last -1: to the end
  long step = 1;
};

/// The selected files.
std::vector<std::string> select(const std::vector<std::string>& files, const Selection& selection);

/// The frames of files, which are not read. They do not fail here.
std::unique_ptr<FrameSource> framesOf(std::vector<std::string> files);

/// PGM and PPM pictures one behind the other, which are named 000000, 000001, ... by their place in the stream.
std::unique_ptr<FrameSource> framesOf(std::FILE* stream, const std::string& name);

/// The selected ones among a source's frames; the others are read and dropped.
std::unique_ptr<FrameSource> select(std::unique_ptr<FrameSource> source, const Selection& selection);

}  // namespace tool
