#include "flow_files/bytes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include "pictures/limits.h"

namespace flow_files {

namespace {

constexpr std::uint32_t kSignOfHalf = 0x8000, kInfinityOfHalf = 0x7c00, kQuietOfHalf = 0x7e00;

template <class To, class From>
To sameBits(From from) {
  static_assert(sizeof(To) == sizeof(From));
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

/// The 16 bits of the nearest number; of two equally near ones the even.
std::uint32_t halfOf(float value) {
  const std::uint32_t sign = std::signbit(value) ? kSignOfHalf : 0;
  if (std::isnan(value)) return sign | kQuietOfHalf;
  const float size = std::abs(value);
  if (size >= 65520.0f) return sign | kInfinityOfHalf;
  // Subnormal numbers and the rest have their steps from 2^-24 on, doubled with every exponent from -13 on.
  const int exponent = size < 0x1p-14f ? -14 : std::ilogb(size);
  const auto steps = static_cast<std::uint32_t>(std::nearbyint(std::ldexp(size, 10 - exponent)));
  return sign | (static_cast<std::uint32_t>(exponent + 14) * 1024 + steps);
}

float fromHalf(std::uint32_t bits) {
  const std::uint32_t exponent = bits >> 10 & 31, steps = bits & 1023;
  float size = exponent == 0   ? std::ldexp(static_cast<float>(steps), -24)
               : exponent < 31 ? std::ldexp(static_cast<float>(1024 + steps), static_cast<int>(exponent) - 25)
               : steps == 0    ? std::numeric_limits<float>::infinity()
                               : std::numeric_limits<float>::quiet_NaN();
  return (bits & kSignOfHalf) != 0 ? -size : size;
}

float floatOf(const unsigned char* bytes, FloatType type) {
  unsigned char turned[8];
  if (type.bigEndian) {
    for (int i = 0; i < type.bytes; ++i) turned[i] = bytes[type.bytes - 1 - i];
    bytes = turned;
  }
  const std::uint64_t bits = littleEndian(bytes, type.bytes);
  if (type.bytes == 2) return fromHalf(static_cast<std::uint32_t>(bits));
  if (type.bytes == 4) return sameBits<float>(static_cast<std::uint32_t>(bits));
  return static_cast<float>(sameBits<double>(bits));
}

constexpr std::size_t kBlock = 8192;  // numbers that are changed at a time

}  // namespace

FileSource::FileSource(const std::string& path) : file_(std::fopen(path.c_str(), "rb"), std::fclose) {
  if (!file_) throw std::runtime_error(std::string("cannot be opened (") + std::strerror(errno) + ")");
  struct stat status {};
  if (fstat(fileno(file_.get()), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error("is not a plain file; only .flo is read from anything else");
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
}

void FileSource::read(void* to, std::size_t count) {
  if (count > left() || std::fread(to, 1, count, file_.get()) < count) {
    if (std::ferror(file_.get())) {
      throw std::runtime_error(std::string("cannot be read (") + std::strerror(errno) + ")");
    }
    throw std::runtime_error("is damaged: it ends too early, after " + std::to_string(size_) + " bytes");
  }
  position_ += count;
}

void FileSource::seek(std::uint64_t position) {
  if (position > size_ || fseeko(file_.get(), static_cast<off_t>(position), SEEK_SET) != 0) {
    throw std::runtime_error("is damaged: it has no byte " + std::to_string(position));
  }
  position_ = position;
}

void FileSink::write(const void* from, std::size_t count) {
  if (std::fwrite(from, 1, count, file_) < count) throw std::runtime_error(std::strerror(errno));
}

void FileSink::flush() {
  if (std::fflush(file_) != 0) throw std::runtime_error(std::strerror(errno));
}

CTensor<float> newFlow(std::uint64_t width, std::uint64_t height, std::uint64_t bytesPerPixel,
                       std::uint64_t available) {
  pictures::checkSize(width, height);
  const std::uint64_t needed = width * height * bytesPerPixel;
  if (needed > available) {
    throw std::runtime_error("is damaged: " + pictures::sizeText(width, height) + " pixels need " +
                             std::to_string(needed) + " bytes, there is room for " +
                             std::to_string(available));
  }
  return CTensor<float>(static_cast<int>(width), static_cast<int>(height), 2);
}

void readFloats(ByteSource& source, FloatType type, float* to, std::size_t count) {
  const auto size = static_cast<std::size_t>(type.bytes);
  std::vector<unsigned char> block(size * std::min(count, kBlock));
  while (count > 0) {
    const std::size_t now = std::min(count, kBlock);
    source.read(block.data(), size * now);
    for (std::size_t i = 0; i < now; ++i) to[i] = floatOf(&block[size * i], type);
    to += now;
    count -= now;
  }
}

void writeFloats(ByteSink& sink, int bytes, const float* from, std::size_t count) {
  const auto size = static_cast<std::size_t>(bytes);
  std::vector<unsigned char> block;
  while (count > 0) {
    const std::size_t now = std::min(count, kBlock);
    block.clear();
    for (std::size_t i = 0; i < now; ++i) {
      const std::uint32_t bits = bytes == 2 ? halfOf(from[i]) : sameBits<std::uint32_t>(from[i]);
      for (std::size_t k = 0; k < size; ++k) block.push_back(static_cast<unsigned char>(bits >> 8 * k));
    }
    sink.write(block.data(), block.size());
    from += now;
    count -= now;
  }
}

float roundedToHalf(float value) {
  return fromHalf(halfOf(value));
}

std::uint64_t littleEndian(const unsigned char* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace flow_files
