#include "cpuflow/flow_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tarvo/NFlowFile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "device/report.h"

namespace flow_file {

namespace {

constexpr char kTag[4] = {'P', 'I', 'E', 'H'};
constexpr std::size_t kBlockPixels = 32768;  // 256 KiB of interleaved data
constexpr std::uint64_t kPixelBytes = 2 * sizeof(float);

struct Header {
  char tag[4];
  std::int32_t width;
  std::int32_t height;
};
static_assert(sizeof(Header) == 12, "the header is written as it lies in memory");

std::size_t pixelCount(const CTensor<float>& flow) {
  return static_cast<std::size_t>(flow.sizeX()) * static_cast<std::size_t>(flow.sizeY());
}

std::string sizeText(const Header& header) {
  return std::to_string(header.width) + " x " + std::to_string(header.height);
}

class InputFile {
 public:
  explicit InputFile(std::string path)
      : path_(std::move(path)), descriptor_(open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) throw OpenError(path_, std::generic_category().message(errno));
    struct stat status {};
    // Files that the system makes up while they are read say they have 0 bytes.
    sizeKnown_ = fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    size_ = sizeKnown_ ? static_cast<std::uint64_t>(status.st_size) : 0;
  }
  ~InputFile() { close(descriptor_); }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// False for a pipe, say.
  bool sizeKnown() const { return sizeKnown_; }
  std::uint64_t size() const { return size_; }

  /// Reads `count` bytes, fewer only at the end of the file; returns how many.
  std::size_t readUpTo(void* bytes, std::size_t count) const {
    std::size_t got = 0;
    while (got < count) {
      const ssize_t n = ::read(descriptor_, static_cast<char*>(bytes) + got, count - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) fail(std::generic_category().message(errno));
      if (n == 0) break;
      got += static_cast<std::size_t>(n);
    }
    return got;
  }

  [[noreturn]] void fail(const std::string& reason) const {
    throw std::runtime_error("Problem reading " + path_ + ": " + reason);
  }
  [[noreturn]] void failShort(const Header& header, std::uint64_t needed, std::uint64_t present) const {
    fail("short data: " + sizeText(header) + " pixels need " + std::to_string(needed) +
         " bytes, the file has " + std::to_string(present));
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int descriptor_;
  bool sizeKnown_ = false;
  std::uint64_t size_ = 0;
};

/// Reads and checks the header; the sizes are then known to give a tensor whose data the file can hold.
Header readHeader(const InputFile& file) {
  Header header{};
  if (file.readUpTo(&header, sizeof header) < sizeof header) file.fail("the file ends within its header");
  if (std::memcmp(header.tag, kTag, sizeof kTag) != 0) file.fail("wrong tag, no flow file");
  if (header.width < 0 || header.height < 0) file.fail("negative size " + sizeText(header));
  const std::uint64_t pixels = static_cast<std::uint64_t>(header.width) * header.height;
  // A tensor without elements is bound by its other sides as well.
  const std::int32_t longest = std::max(header.width, header.height);
  if (std::max<std::uint64_t>(pixels, longest) > INT_MAX / 2)
    file.fail("the size " + sizeText(header) + " is too large");
  const std::uint64_t needed = sizeof header + pixels * kPixelBytes;
  if (file.sizeKnown() && needed > file.size()) file.failShort(header, needed, file.size());
  return header;
}

/// Separates `count` interleaved pixels into the planes, from pixel `first` on.
void separate(const float* pairs, std::size_t count, CTensor<float>& flow, std::size_t first) {
  float* u = flow.data() + first;
  float* v = u + pixelCount(flow);
  for (std::size_t i = 0; i < count; ++i) {
    u[i] = pairs[2 * i];
    v[i] = pairs[2 * i + 1];
  }
}

/// Data of a file that is known to hold them.
CTensor<float> readKnown(const InputFile& file, const Header& header) {
  CTensor<float> flow(header.width, header.height, 2);
  const std::size_t pixels = pixelCount(flow);
  std::vector<float> block(2 * std::min(pixels, kBlockPixels));
  for (std::size_t first = 0; first < pixels; first += kBlockPixels) {
    const std::size_t count = std::min(pixels - first, kBlockPixels);
    const std::size_t got = file.readUpTo(block.data(), count * kPixelBytes);
    if (got < count * kPixelBytes) {
      file.failShort(header, sizeof header + pixels * kPixelBytes, sizeof header + first * kPixelBytes + got);
    }
    separate(block.data(), count, flow, first);
  }
  return flow;
}

/// Data of an input of unknown length: memory grows with what has arrived.
CTensor<float> readStream(const InputFile& file, const Header& header) {
  const std::size_t pixels = static_cast<std::size_t>(header.width) * header.height;
  std::vector<float> pairs;
  for (std::size_t first = 0; first < pixels; first += kBlockPixels) {
    const std::size_t count = std::min(pixels - first, kBlockPixels);
    pairs.resize(2 * (first + count));
    const std::size_t got = file.readUpTo(pairs.data() + 2 * first, count * kPixelBytes);
    if (got < count * kPixelBytes) {
      file.failShort(header, sizeof header + pixels * kPixelBytes, sizeof header + first * kPixelBytes + got);
    }
  }
  CTensor<float> flow(header.width, header.height, 2);
  separate(pairs.data(), pixels, flow, 0);
  return flow;
}

/// Tells about bytes after the data, if there are any.
void reportRest(const InputFile& file, const CTensor<float>& flow) {
  char byte = 0;
  if (file.readUpTo(&byte, 1) == 0) return;
  const std::uint64_t end = sizeof(Header) + pixelCount(flow) * kPixelBytes;
  if (file.sizeKnown() && file.size() > end) {
    report::print("%s: %llu bytes after the flow data are ignored\n", file.path().c_str(),
                  static_cast<unsigned long long>(file.size() - end));
  } else {
    report::print("%s: bytes after the flow data are ignored\n", file.path().c_str());
  }
}

/// An open file that somebody else cares for, with the one function of OutputFile that writing takes.
struct Stream {
  std::FILE* file;
  bool write(const void* bytes, std::size_t count) const {
    return std::fwrite(bytes, 1, count, file) == count;
  }
};

template <class File>
bool headerTo(File& file, const CTensor<float>& flow) {
  Header header{{}, flow.sizeX(), flow.sizeY()};
  std::memcpy(header.tag, kTag, sizeof kTag);
  return file.write(&header, sizeof header);
}

template <class File>
bool dataTo(File& file, const CTensor<float>& flow) {
  const std::size_t pixels = pixelCount(flow);
  const float* u = flow.data();
  const float* v = u + pixels;
  std::vector<float> block(2 * std::min(pixels, kBlockPixels));
  for (std::size_t first = 0; first < pixels; first += kBlockPixels) {
    const std::size_t count = std::min(pixels - first, kBlockPixels);
    for (std::size_t i = 0; i < count; ++i) {
      block[2 * i] = u[first + i];
      block[2 * i + 1] = v[first + i];
    }
    if (!file.write(block.data(), count * kPixelBytes)) return false;
  }
  return true;
}

}  // namespace

OpenError::OpenError(const std::string& path, const std::string& reason)
    : std::runtime_error("Could not open " + path + ": " + reason) {}

CTensor<float> read(const std::string& path) {
  const InputFile file(path);
  const Header header = readHeader(file);
  try {
    CTensor<float> flow = file.sizeKnown() ? readKnown(file, header) : readStream(file, header);
    reportRest(file, flow);
    return flow;
  } catch (const std::bad_alloc&) {
    file.fail("not enough memory for " + sizeText(header) + " pixels");
  }
}

std::string whyNotWritable(const CTensor<float>& flow) {
  if (flow.sizeZ() >= 2 || pixelCount(flow) == 0) return "";
  return "a flow has 2 planes, not " + std::to_string(flow.sizeZ());
}

bool writeHeader(OutputFile& file, const CTensor<float>& flow) {
  return headerTo(file, flow);
}

bool writeData(OutputFile& file, const CTensor<float>& flow) {
  return dataTo(file, flow);
}

std::string writeProblem(const std::string& path, const std::string& reason) {
  return "Problem writing data to " + path + ": " + reason;
}

}  // namespace flow_file

namespace NFlowFile {

CTensor<float> read(const std::string& path) {
  return flow_file::read(path);
}

void write(const std::string& path, const CTensor<float>& flow) {
  const std::string objection = flow_file::whyNotWritable(flow);
  if (!objection.empty()) throw std::runtime_error(flow_file::writeProblem(path, objection));
  OutputFile file(path);
  if (!file.isOpen()) throw flow_file::OpenError(path, file.reason());
  if (!flow_file::writeHeader(file, flow) || !flow_file::writeData(file, flow) || !file.commit()) {
    throw std::runtime_error(flow_file::writeProblem(path, file.reason()));
  }
}

void write(std::FILE* file, const CTensor<float>& flow) {
  const std::string objection = flow_file::whyNotWritable(flow);
  if (!objection.empty()) throw std::runtime_error(objection);
  flow_file::Stream stream{file};
  if (!flow_file::headerTo(stream, flow) || !flow_file::dataTo(stream, flow) || std::fflush(file) != 0) {
    throw std::runtime_error(std::generic_category().message(errno));
  }
}

}  // namespace NFlowFile
