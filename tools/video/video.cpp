#include "video/video.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "pictures/picture.h"
#include "video/child.h"

namespace tool {

namespace {

using video::Child;
using video::Pipe;

/// Ticks per second: a whole number of them is a frame of every usual rate, of 24000/1001 Hz too.
constexpr const char* kTicks = "1/720000";
constexpr double kTick = 1 / 720000.0;
constexpr const char* kConversion = "scale=sws_flags=bicubic+accurate_rnd+full_chroma_int+bitexact";
constexpr const char* kNeeded =
    "video needs the programs ffmpeg and ffprobe, version 5.1 or newer (Debian, Ubuntu: apt install ffmpeg)";

using Properties = std::map<std::string, std::string>;

/// Whether a version is new enough: 5.1, n6.0, 7:5.1.2; builds from a repository (N-..., git-...) count as new.
bool newEnough(const std::string& version) {
  std::size_t at = version.compare(0, 1, "n") == 0 ? 1 : 0;
  if (at >= version.size() || !std::isdigit(static_cast<unsigned char>(version[at]))) {
    return true;
  }
  char* end = nullptr;
  const long major = std::strtol(version.c_str() + at, &end, 10);
  const long minor = *end == '.' ? std::strtol(end + 1, nullptr, 10) : 0;
  return major > 5 || (major == 5 && minor >= 1);
}

std::string argumentOf(const std::string& path) {
  return "file:" + path;
}

Properties probe(const std::string& path) {
  const std::string text =
      video::outputOf({"ffprobe", "-v", "error", "-protocol_whitelist", "file,pipe", "-select_streams", "v:0",
                       "-show_entries", "stream=pix_fmt,color_space,duration,start_time:stream_tags=DURATION",
                       "-of", "default=noprint_wrappers=1", "-i", argumentOf(path)});
  Properties found;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = text.substr(at, end - at);
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      found.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    at = end + 1;
  }
  return found;
}

/// Formats of several bytes per value name their byte order; a few pack a pixel into two bytes.
bool finerThanBytes(const std::string& format) {
  const std::string ending = format.size() < 2 ? "" : format.substr(format.size() - 2);
  const bool packed = format.compare(0, 4, "rgb4") == 0 || format.compare(0, 4, "rgb5") == 0 ||
                      format.compare(0, 4, "bgr4") == 0 || format.compare(0, 4, "bgr5") == 0;
  return (ending == "le" || ending == "be") && !packed;
}

/// The length that the clip's head states [s], 0 where it does not: "1.24", or "00:00:01.240000000" of a tag.
double statedLength(Properties& properties) {
  const double length = std::atof(properties["duration"].c_str());
  int hours = 0, minutes = 0;
  double seconds = 0;
  if (length <= 0 &&
      std::sscanf(properties["TAG:DURATION"].c_str(), "%d:%d:%lf", &hours, &minutes, &seconds) == 3) {
    return 3600. * hours + 60. * minutes + seconds;
  }
  return std::max(length, 0.);
}

std::vector<std::string> decodingWords(const std::string& path, const VideoOptions& options, bool sixteen) {
  std::string trim;
  if (options.start || options.stop) {
    trim = "trim=start=" + std::to_string(options.start.value_or(0)) +
           (options.stop ? ":end=" + std::to_string(*options.stop) : "") + ",";
  }
  // The times come first: then they never wait for a picture that nobody reads yet.
  return {"ffmpeg",
          "-v",
          "error",
          "-nostdin",
          "-protocol_whitelist",
          "file,pipe",
          "-i",
          argumentOf(path),  //
          "-map",
          "0:v:0",
          "-fps_mode",
          "passthrough",
          "-enc_time_base",
          kTicks,
          "-vf",
          trim + "null",  //
          "-c:v",
          "wrapped_avframe",
          "-flush_packets",
          "1",
          "-f",
          "framecrc",
          "pipe:3",  //
          "-map",
          "0:v:0",
          "-fps_mode",
          "passthrough",
          "-enc_time_base",
          kTicks,
          "-vf",
          trim + kConversion,  //
          "-pix_fmt",
          sixteen ? "rgb48be" : "rgb24",
          "-c:v",
          "ppm",
          "-f",
          "image2pipe",
          "pipe:1"};
}

/// What the decoder writes beside the pictures, read by a thread of its own: times and messages.
class Listener {
 public:
  ~Listener() { join(); }

  void start() {
    thread_ = std::thread([this] { listen(); });
  }
  void join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  /// Waits for the time of the next frame; none where there are no more.
  std::optional<double> nextTime() {
    std::unique_lock<std::mutex> lock(mutex_);
    news_.wait(lock, [this] { return ended_ || !times_.empty(); });
    if (times_.empty()) {
      return std::nullopt;
    }
    const double time = times_.front();
    times_.pop_front();
    return time;
  }
  /// Once the thread has been joined.
  const std::string& messages() const { return messages_; }

  Pipe times, messagesPipe;

 private:
  void listen();
  void take(const std::string& line);

  static constexpr std::size_t kMostMessages = 1u << 16;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable news_;
  bool ended_ = false;
  std::deque<double> times_;
  std::string messages_;
};

void Listener::listen() {
  std::string begun;
  std::array<pollfd, 2> ends{pollfd{times.read.get(), POLLIN, 0}, pollfd{messagesPipe.read.get(), POLLIN, 0}};
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    poll(ends.data(), ends.size(), -1);
    for (std::size_t i = 0; i < ends.size(); ++i) {
      std::array<char, 4096> part{};
      const ssize_t got =
          ends[i].fd >= 0 && ends[i].revents != 0 ? read(ends[i].fd, part.data(), part.size()) : ssize_t{-2};
      if (got == 0 || (got == -1 && errno != EINTR)) {
        ends[i].fd = -1;
      } else if (got > 0 && i == 1) {
        messages_.append(part.data(), static_cast<std::size_t>(got));
        messages_.erase(0, messages_.size() > kMostMessages ? messages_.size() - kMostMessages : 0);
      } else if (got > 0) {
        begun.append(part.data(), static_cast<std::size_t>(got));
        for (std::size_t end = begun.find('\n'); end != std::string::npos; end = begun.find('\n')) {
          take(begun.substr(0, end));
          begun.erase(0, end + 1);
        }
      }
    }
    if (ends[0].fd < 0) {
      const std::lock_guard<std::mutex> lock(mutex_);
      ended_ = true;
      news_.notify_all();
    }
  }
}

/// A line "stream, dts, pts, duration, size, checksum", or "#..." of the head.
void Listener::take(const std::string& line) {
  long long ticks = 0;
  if (std::sscanf(line.c_str(), "%*d, %*d, %lld,", &ticks) == 1) {
    const std::lock_guard<std::mutex> lock(mutex_);
    times_.push_back(static_cast<double>(ticks) * kTick);
    news_.notify_all();
  }
}

class FfmpegSource final : public VideoSource {
 public:
  FfmpegSource(const std::string& path, const VideoOptions& options, bool sixteenBits, double stated)
      : path_(path), stop_(options.stop), sixteenBits_(sixteenBits), stated_(stated) {
    Pipe pictures;
    child_ =
        std::make_unique<Child>(decodingWords(path, options, sixteenBits),
                                std::vector<int>{-1, pictures.write.get(), listener_.messagesPipe.write.get(),
                                                 listener_.times.write.get()});
    listener_.messagesPipe.write.reset();
    listener_.times.write.reset();
    stream_.reset(fdopen(dup(pictures.read.get()), "rb"));
    if (!stream_) {
      throw std::runtime_error(path + ": cannot be read (too many open files)");
    }
    listener_.start();
  }
  ~FfmpegSource() override { child_.reset(); }  // before the listener, which waits for its end

  std::optional<long> count() const override { return std::nullopt; }
  bool sixteenBits() const override { return sixteenBits_; }
  bool next(Frame& frame) override;

 private:
  void checkEnd();
  [[noreturn]] void broken(const std::string& reason) const {
    throw BrokenSequence(path_ + ": ends after " + std::to_string(read_) +
                         (read_ == 1 ? " frame (" : " frames (") + reason + ")");
  }

  std::string path_;
  std::optional<double> stop_;
  bool sixteenBits_;
  double stated_;
  Listener listener_;
  std::unique_ptr<Child> child_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream_{nullptr, std::fclose};
  long read_ = 0;
  int width_ = 0, height_ = 0;
  double last_ = 0, longestStep_ = 0;  // [s]
  bool ended_ = false;
};

bool FfmpegSource::next(Frame& frame) {
  if (ended_) {
    return false;
  }
  bool found = false;
  try {
    found = readNextPnm(stream_.get(), path_, frame.picture);
  } catch (const std::runtime_error&) {
    ended_ = true;
    checkEnd();  // the decoder knows the reason better
    broken("its last picture is cut off");
  }
  if (!found) {
    ended_ = true;
    checkEnd();
    return false;
  }
  const std::optional<double> time = listener_.nextTime();
  if (!time) {
    ended_ = true;
    broken("a frame has no time");
  }
  const int width = frame.picture.sizeX(), height = frame.picture.sizeY();
  if (read_ > 0 && (width != width_ || height != height_)) {
    ended_ = true;
    broken("the next has " + std::to_string(width) + " x " + std::to_string(height) + " pixels, not " +
           std::to_string(width_) + " x " + std::to_string(height_));
  }
  longestStep_ = read_ > 0 ? std::max(longestStep_, *time - last_) : 0;
  width_ = width, height_ = height, last_ = *time;
  std::array<char, 32> name{};
  std::snprintf(name.data(), name.size(), "%06ld", read_++);
  frame.name = name.data();
  frame.time = time;
  return true;
}

/// Whether the clip ended where it should. A decoder may well call a clip that is cut off a success.
void FfmpegSource::checkEnd() {
  stream_.reset();
  const int status = child_->wait();
  listener_.join();
  const std::string& messages = listener_.messages();
  const std::string last = video::lastLine(messages);
  if (status != 0) {
    broken(!last.empty() ? last
           : status < 0  ? "ffmpeg was ended by signal " + std::to_string(-status)
                         : "ffmpeg ended with status " + std::to_string(status));
  }
  for (const char* text : {"ended prematurely", "partial file"}) {
    if (messages.find(text) != std::string::npos) {
      broken("the file is cut off");
    }
  }
  // The last frame may be shown longer than any other, so that only a longer gap counts.
  constexpr double kLeastGap = 0.5;
  const bool whole = !stop_ || *stop_ >= stated_;
  if (whole && read_ > 1 && stated_ - last_ > std::max(kLeastGap, 3 * longestStep_) && !last.empty()) {
    broken(std::to_string(stated_) + " s are stated; " + last);
  }
}

}  // namespace

void checkFfmpeg() {
  for (const char* program : {"ffmpeg", "ffprobe"}) {
    std::string text;
    try {
      text = video::outputOf({program, "-version"});
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(std::string(kNeeded) + ": " + error.what());
    }
    const std::string head = std::string(program) + " version ";
    const std::string version =
        text.compare(0, head.size(), head) == 0
            ? text.substr(head.size(), text.find_first_of(" \n", head.size()) - head.size())
            : "0";
    if (!newEnough(version)) {
      throw std::runtime_error(std::string(kNeeded) + "; " + program + " here is version " + version);
    }
  }
}

bool looksLikeVideo(const std::string& path) {
  std::string ending = std::filesystem::path(path).extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  for (const char* known : {".mp4", ".mkv", ".mov", ".avi", ".webm", ".m4v", ".mpg", ".mpeg", ".ts", ".mts",
                            ".m2ts", ".wmv", ".flv", ".ogv", ".3gp", ".y4m", ".gif"}) {
    if (ending == known) {
      return true;
    }
  }
  return false;
}

std::unique_ptr<VideoSource> openVideo(const std::string& path, const VideoOptions& options,
                                       std::vector<std::string>* messages) {
  const double start = options.start.value_or(0);
  if (!(start >= 0) || (options.stop && !(*options.stop > start))) {
    throw std::invalid_argument("a clip is read from start >= 0 to a later stop, not from " +
                                std::to_string(start) + " to " +
                                (options.stop ? std::to_string(*options.stop) : "the end") + " s");
  }
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    throw std::runtime_error(path + ": is not there, or not a plain file");
  }
  checkFfmpeg();
  Properties properties;
  try {
    properties = probe(path);
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error(path + ": cannot be read as video: " + failure.what());
  }
  const std::string format = properties["pix_fmt"], matrix = properties["color_space"];
  if (format.empty()) {
    throw std::runtime_error(path + ": has no video");
  }
  const bool chroma = format.find("yuv") != std::string::npos || format.compare(0, 2, "nv") == 0;
  if (messages && chroma && (matrix.empty() || matrix == "unknown")) {
    messages->push_back(path + ": does not name its colour matrix; ffmpeg's default (BT.601) is used");
  }
  return std::make_unique<FfmpegSource>(path, options, finerThanBytes(format), statedLength(properties));
}

}  // namespace tool
