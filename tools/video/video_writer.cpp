#include "video/video_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "video/child.h"
#include "video/video.h"

namespace tool {

namespace {

std::string endingOf(const std::string& path) {
  std::string ending = std::filesystem::path(path).extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return ending;
}

using Words = std::vector<std::string>;

constexpr const char* kConversion =
    "scale=out_color_matrix=bt709:out_range=tv:sws_flags=bicubic+accurate_rnd+full_chroma_int+bitexact,"
    "format=yuv420p";

/// How the pictures are coded. The same ffmpeg gives the same bytes each time.
Words codingWords(const std::string& path) {
  if (endingOf(path) == ".mkv") {
    return {"-c:v", "ffv1", "-level", "3", "-pix_fmt", "bgr0", "-f", "matroska"};
  }
  Words words{"-vf",         kConversion, "-color_primaries", "bt709", "-color_trc", "bt709",
              "-colorspace", "bt709",     "-color_range",     "tv"};
  const bool hasX264 =
      video::outputOf({"ffmpeg", "-v", "error", "-encoders"}).find(" libx264 ") != std::string::npos;
  const Words codec = hasX264 ? Words{"-c:v", "libx264", "-crf", "16"} : Words{"-c:v", "mpeg4", "-q:v", "2"};
  words.insert(words.end(), codec.begin(), codec.end());
  words.insert(words.end(), {"-movflags", "+faststart", "-f", "mp4"});
  return words;
}

/// A rate that is a whole number, or 1000 / 1001 of one, up to the rounding of times is taken for it.
std::string rateText(double rate) {
  for (const int divisor : {1000, 1001}) {
    const double whole = std::round(rate * divisor / 1000);
    if (whole > 0 && std::fabs(rate * divisor / 1000 / whole - 1) < 1e-4) {
      return std::to_string(std::lround(whole) * 1000) + "/" + std::to_string(divisor);
    }
  }
  return std::to_string(rate);
}

Words writingWords(const std::string& path, const std::string& part, double rate,
                   const std::vector<std::pair<std::string, std::string>>& notes) {
  Words words{"ffmpeg",     "-v",      "error",     "-nostdin",   "-y",           "-f",
              "image2pipe", "-c:v",    "ppm",       "-framerate", rateText(rate), "-i",
              "pipe:0",     "-fflags", "+bitexact", "-flags:v",   "+bitexact"};
  std::string comment;
  for (const auto& [name, value] : notes) comment += (comment.empty() ? "" : ", ") + name + " " + value;
  if (!comment.empty()) words.insert(words.end(), {"-metadata", "comment=" + comment});
  const Words coding = codingWords(path);
  words.insert(words.end(), coding.begin(), coding.end());
  words.push_back("file:" + part);
  return words;
}

}  // namespace

struct VideoWriter::Pictures {
  Pictures() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
  }
  ~Pictures() { sigaction(SIGPIPE, &before, nullptr); }
  Pictures(const Pictures&) = delete;
  Pictures& operator=(const Pictures&) = delete;

  video::Pipe pipe;
  struct sigaction before {};
};

bool isWritableVideo(const std::string& path) {
  return endingOf(path) == ".mp4" || endingOf(path) == ".mkv";
}

VideoWriter::VideoWriter(std::string path, double rate, int width, int height,
                         const std::vector<std::pair<std::string, std::string>>& notes,
                         std::function<void()> poll)
    : path_(std::move(path)),
      part_(path_ + ".part"),
      poll_(std::move(poll)),
      width_(width),
      height_(height),
      codedWidth_(width),
      codedHeight_(height) {
  checkFfmpeg();
  if (endingOf(path_) == ".mp4") {
    codedWidth_ += width % 2;
    codedHeight_ += height % 2;
  }
  pictures_ = std::make_unique<Pictures>();
  messages_.reset(std::tmpfile());
  if (!messages_) throw std::runtime_error(path_ + ": cannot be written (" + std::strerror(errno) + ")");
  child_ = std::make_unique<video::Child>(
      writingWords(path_, part_, rate, notes),
      std::vector<int>{pictures_->pipe.read.get(), -1, fileno(messages_.get())});
  pictures_->pipe.read.reset();
}

VideoWriter::~VideoWriter() {
  if (!child_) return;
  child_.reset();
  unlink(part_.c_str());
}

void VideoWriter::write(const void* bytes, std::size_t count) {
  for (std::size_t done = 0; done < count;) {
    poll_();  // a signal ends the write early
    const ssize_t now =
        ::write(pictures_->pipe.write.get(), static_cast<const char*>(bytes) + done, count - done);
    if (now < 0 && errno == EINTR) continue;
    if (now < 0) fail();  // ffmpeg has ended
    done += static_cast<std::size_t>(now);
  }
}

void VideoWriter::add(const CTensor<float>& rgb) {
  if (rgb.sizeX() != width_ || rgb.sizeY() != height_ || rgb.sizeZ() != 3) {
    throw std::logic_error(path_ + ": a picture of another size than the clip");
  }
  const std::string head =
      "P6\n" + std::to_string(codedWidth_) + " " + std::to_string(codedHeight_) + "\n255\n";
  bytes_.clear();
  for (int y = 0; y < codedHeight_; ++y) {
    for (int x = 0; x < codedWidth_; ++x) {
      for (int z = 0; z < 3; ++z) {
        const float value = rgb(std::min(x, width_ - 1), std::min(y, height_ - 1), z);
        bytes_.push_back(static_cast<unsigned char>(value > 0 ? std::lround(std::min(value, 255.f)) : 0));
      }
    }
  }
  write(head.data(), head.size());
  write(bytes_.data(), bytes_.size());
}

void VideoWriter::finish() {
  pictures_->pipe.write.reset();
  // Where a disk is full, ffmpeg says so and calls it a success.
  if (child_->wait() != 0 || !messages().empty()) fail();
  if (std::rename(part_.c_str(), path_.c_str()) != 0) {
    throw std::runtime_error(path_ + ": cannot be written (" + std::strerror(errno) + ")");
  }
  child_.reset();
}

std::string VideoWriter::messages() {
  std::string text(1u << 16, '\0');
  std::fseek(messages_.get(), 0, SEEK_SET);
  text.resize(std::fread(text.data(), 1, text.size(), messages_.get()));
  return video::lastLine(text);
}

void VideoWriter::fail() {
  pictures_->pipe.write.reset();
  const int status = child_->wait();
  const std::string reason = messages();
  throw std::runtime_error(path_ + ": cannot be written (" +
                           (!reason.empty() ? reason
                            : status < 0    ? "ffmpeg was ended by signal " + std::to_string(-status)
                                            : "ffmpeg ended with status " + std::to_string(status)) +
                           ")");
}

}  // namespace tool
