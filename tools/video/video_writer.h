#pragma once

#include <tarvo/CTensor.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace video {
class Child;
}

namespace tool {

/// Whether VideoWriter takes a file of this name: .mp4 or .mkv.
bool isWritableVideo(const std::string& path);

/// Writes pictures into a clip, which appears under its name when it is whole; until then, and where the process is
/// killed, it is PATH.part, which the next attempt writes over. The program ffmpeg codes it as it is written:
/// .mkv as FFV1 in 8-bit RGB without loss; .mp4 as H.264 (libx264), or as MPEG-4 where ffmpeg lacks that, in
/// yuv420p by BT.709, limited range, tagged so. There odd sides get their last row or column once more.
/// While one lives the process ignores SIGPIPE.
class VideoWriter {
 public:
  /// @param rate           frames per second, above 0
  /// @param width, height  of all pictures
  /// @param notes          names and values of what the file is to tell as text
  /// @param poll           called before each piece that is written, also after a signal; may throw
  /// @throws std::runtime_error  saying what is needed, if there is no ffmpeg
  VideoWriter(
      std::string path, double rate, int width, int height,
      const std::vector<std::pair<std::string, std::string>>& notes = {}, std::function<void()> poll = [] {});
  /// Ends ffmpeg and removes what is not finished.
  ~VideoWriter();
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  /// Adds a picture of that size x 3; values are rounded and limited to 0 ... 255, not-a-number gives 0.
  /// @throws std::runtime_error  naming the file, with ffmpeg's reason, if it cannot be written
  void add(const CTensor<float>& rgb);

  /// Waits for ffmpeg and gives the file its name. Throws as add does.
  void finish();

 private:
  void write(const void* bytes, std::size_t count);
  /// What ffmpeg said last; empty: nothing.
  std::string messages();
  [[noreturn]] void fail();

  std::string path_, part_;
  std::function<void()> poll_;
  int width_, height_, codedWidth_, codedHeight_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> messages_{nullptr, std::fclose};
  struct Pictures;  // the way to ffmpeg
  std::unique_ptr<Pictures> pictures_;
  std::unique_ptr<video::Child> child_;
  std::vector<unsigned char> bytes_;
};

}  // namespace tool
