#include "flow_files/flow_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tarvo/tarvo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "evaluation/evaluation.h"
#include "flow_files/formats.h"

namespace fs = std::filesystem;

namespace flow_files {

namespace {

constexpr float kNoNumber = std::numeric_limits<float>::quiet_NaN();
constexpr float kUnknownInFlo = 1e10f;

void encodeFlo(std::FILE* file, const CTensor<float>& flow, int, const tool::FlowWriteOptions&) {
  NFlowFile::write(file, flow);
}

// Of .flo the library reads and writes any; readFlow does so itself.
const Codec kFlo{nullptr, encodeFlo, nullptr, 4};
const Codec kPng{decodeKittiPng, encodeKittiPng, roundedToKitti, 2};
const Codec kPfm{decodePfm, encodePfm, nullptr, 4};
const Codec kNpy{decodeNpy, encodeNpy, nullptr, 4}, kNpy16{decodeNpy, encodeNpy, roundedToHalf, 2};
const Codec kNpz{decodeNpz, encodeNpz, nullptr, 4}, kNpz16{decodeNpz, encodeNpz, roundedToHalf, 2};
const Codec kExr{decodeExr, exrEncoder(), nullptr, 4}, kExr16{decodeExr, exrEncoder(), roundedToHalf, 2};

const tool::FlowFormat kFormats[] = {
    {"flo", ".flo", "numbers of 32 bits", &kFlo},
    {"png", ".png", "KITTI's PNG of 16 bits: steps of 1/64 px, up to 512 px", &kPng},
    {"pfm", ".pfm", "numbers of 32 bits", &kPfm},
    {"npy", ".npy", "NumPy's array of 32 bits", &kNpy},
    {"npy16", ".npy", "NumPy's array of 16 bits", &kNpy16},
    {"npz", ".npz", "NumPy's archive, 32 bits", &kNpz},
    {"npz16", ".npz", "NumPy's archive, 16 bits", &kNpz16},
    {"exr", ".exr", "OpenEXR, 32 bits", &kExr},
    {"exr16", ".exr", "OpenEXR, 16 bits", &kExr16},
};

const tool::FlowFormat* formatOf(const std::string& path) {
  std::string ending = fs::path(path).extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  const auto* const found =
      std::find_if(std::begin(kFormats), std::end(kFormats),
                   [&](const tool::FlowFormat& format) { return ending == format.ending; });
  return found == std::end(kFormats) ? nullptr : found;
}

template <class Change>
void forPixels(CTensor<float>& flow, const Change& change) {
  float* u = flow.data();
  float* v = u + flow.size() / 2;
  for (const float* const end = v; u < end; ++u, ++v) change(*u, *v);
}

/// The values as they will be in the file, not-a-number where unknown. Of .flo only what is not finite changes.
CTensor<float> asInFile(const CTensor<float>& flow, const Codec& codec, tool::FlowLoss& loss) {
  CTensor<float> changed = flow;
  if (&codec == &kFlo) {
    forPixels(changed, [](float& u, float& v) {
      if (!std::isfinite(u) || !std::isfinite(v)) u = v = kUnknownInFlo;
    });
    return changed;
  }
  forPixels(changed, [&](float& u, float& v) {
    const bool known = isKnown(u, v);
    const float nearU = known && codec.rounded ? codec.rounded(u) : u;
    const float nearV = known && codec.rounded ? codec.rounded(v) : v;
    if (!known || !std::isfinite(nearU) || !std::isfinite(nearV)) {
      loss.dropped += known;
      u = v = kNoNumber;
      return;
    }
    loss.error = std::max({loss.error, std::abs(double{nearU} - u), std::abs(double{nearV} - v)});
    u = nearU;
    v = nearV;
  });
  return changed;
}

/// A file that is renamed to its final name once it is complete.
class NewFile {
 public:
  explicit NewFile(const std::string& path);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  std::FILE* stream() const { return stream_.get(); }
  void commit();

 private:
  [[noreturn]] static void fail() { throw std::runtime_error(std::strerror(errno)); }

  fs::path target_;
  std::string temporary_;  // empty: nothing to rename or remove
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream_;
};

NewFile::NewFile(const std::string& path) : target_(path), stream_(nullptr, std::fclose) {
  static std::atomic<unsigned> counter{0};
  constexpr mode_t kNewFilePermissions = 0666;  // less the process's mask
  std::error_code error;
  const fs::path followed = fs::canonical(target_, error);
  if (!error) target_ = followed;
  struct stat status {};
  const bool exists = stat(target_.c_str(), &status) == 0;
  if (exists && access(target_.c_str(), W_OK) != 0) fail();  // then it may not be replaced either
  if (exists && !S_ISREG(status.st_mode)) {
    stream_.reset(std::fopen(target_.c_str(), "wb"));
    if (!stream_) fail();
    return;
  }
  temporary_ =
      (target_.parent_path() / (".tarvo-" + std::to_string(getpid()) + "-flow" + std::to_string(++counter)))
          .string();
  const int descriptor =
      open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFilePermissions);
  if (descriptor < 0) {
    temporary_.clear();
    fail();
  }
  // Where the file system has none to set, the file is as good without.
  if (exists) static_cast<void>(fchmod(descriptor, status.st_mode & 07777));
  stream_.reset(fdopen(descriptor, "wb"));
  if (!stream_) fail();
}

NewFile::~NewFile() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void NewFile::commit() {
  if (std::fclose(stream_.release()) != 0) fail();
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) fail();
  temporary_.clear();
}

}  // namespace

void interleaveRow(const CTensor<float>& flow, int y, int channels, std::vector<float>& row) {
  row.assign(static_cast<std::size_t>(channels) * flow.sizeX(), 0.0f);
  float* to = row.data();
  for (int x = 0; x < flow.sizeX(); ++x, to += channels) {
    to[0] = flow(x, y, 0);
    to[1] = flow(x, y, 1);
  }
}

}  // namespace flow_files

namespace tool {

const std::vector<FlowFormat>& flowFormats() {
  static const std::vector<FlowFormat> formats = [] {
    std::vector<FlowFormat> written;
    for (const FlowFormat& format : flow_files::kFormats) {
      if (format.codec->encode) written.push_back(format);
    }
    return written;
  }();
  return formats;
}

const FlowFormat* formatNamed(const std::string& name) {
  for (const FlowFormat& format : flowFormats()) {
    if (name == format.name) return &format;
  }
  return nullptr;
}

const FlowFormat* formatOfFile(const std::string& path) {
  const FlowFormat* const format = flow_files::formatOf(path);
  return format ? formatNamed(format->name) : nullptr;
}

std::string endingOf(const FlowFormat& format) {
  return format.ending;
}

std::vector<std::string> flowEndings() {
  std::vector<std::string> endings;
  for (const FlowFormat& format : flowFormats()) {
    if (endings.empty() || endings.back() != format.ending) endings.emplace_back(format.ending);
  }
  return endings;
}

std::string textOf(const FlowLoss& loss, const FlowFormat& format) {
  std::string text;
  if (loss.dropped > 0) {
    text = std::to_string(loss.dropped) + " pixels with motion beyond what " + format.name +
           " holds are marked unknown";
  }
  if (loss.error > 0) {
    char rounding[64];
    std::snprintf(rounding, sizeof rounding, "%srounded by at most %.3g px", text.empty() ? "" : "; ",
                  loss.error);
    text += rounding;
  }
  return text;
}

CTensor<float> readFlow(const std::string& path, std::vector<std::string>* messages) {
  const FlowFormat* const format = flow_files::formatOf(path);
  CTensor<float> flow;
  if (!format || !format->codec->decode) {
    flow = NFlowFile::read(path);
  } else {
    try {
      flow_files::Notes notes;
      flow = format->codec->decode(path, notes);
      for (const std::string& note : notes) {
        if (messages) messages->push_back(path + ": " + note);
      }
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(path + ": " + error.what());
    }
  }
  flow_files::forPixels(flow, [](float& u, float& v) {
    if (!isKnown(u, v)) u = v = flow_files::kNoNumber;
  });
  return flow;
}

FlowLoss writeFlow(std::FILE* file, const CTensor<float>& flow, const FlowFormat& format,
                   const FlowWriteOptions& options) {
  if (flow.sizeZ() != 2) throw std::runtime_error("a flow has 2 planes, not " + std::to_string(flow.sizeZ()));
  if (flow.size() == 0) throw std::runtime_error("a flow without pixels is not written");
  FlowLoss loss;
  format.codec->encode(file, flow_files::asInFile(flow, *format.codec, loss), format.codec->bytes, options);
  return loss;
}

FlowLoss writeFlow(const std::string& path, const CTensor<float>& flow, const FlowFormat& format,
                   const FlowWriteOptions& options) {
  try {
    flow_files::NewFile file(path);
    const FlowLoss loss = writeFlow(file.stream(), flow, format, options);
    file.commit();
    return loss;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": cannot be written (" + error.what() + ")");
  }
}

}  // namespace tool
