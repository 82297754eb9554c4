#pragma once

#include <tarvo/CTensor.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

/// Bytes and numbers in files. Errors are std::runtime_error with the reason alone.
namespace flow_files {

/// Bytes one after another.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  /// Reads all of the bytes. Throws where there are fewer.
  virtual void read(void* to, std::size_t count) = 0;
};

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void write(const void* from, std::size_t count) = 0;
};

/// A plain file, from its start on.
class FileSource : public ByteSource {
 public:
  /// Throws if it cannot be opened, or is no plain file.
  explicit FileSource(const std::string& path);

  void read(void* to, std::size_t count) override;
  std::uint64_t size() const { return size_; }
  std::uint64_t position() const { return position_; }
  std::uint64_t left() const { return size_ - position_; }
  /// Throws for a position after the end.
  void seek(std::uint64_t position);

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
  std::uint64_t size_ = 0, position_ = 0;
};

/// A file that somebody else opened and will close.
class FileSink : public ByteSink {
 public:
  explicit FileSink(std::FILE* file) : file_(file) {}
  void write(const void* from, std::size_t count) override;
  void flush();

 private:
  std::FILE* file_;
};

/// An uninitialised width x height x 2 tensor. Throws if there are no pixels, more than the library takes for a
/// flow, or more than `available` bytes can hold at `bytesPerPixel`.
CTensor<float> newFlow(std::uint64_t width, std::uint64_t height, std::uint64_t bytesPerPixel,
                       std::uint64_t available);

/// What deflate packs into a byte at most.
constexpr std::uint64_t kMostInflated = 1032;

/// Numbers with 2, 4 or 8 bytes, as IEEE 754 has them.
struct FloatType {
  int bytes = 4;
  bool bigEndian = false;
};
/// Reads numbers and rounds them to float. The first `count` elements at `to` are set.
void readFloats(ByteSource& source, FloatType type, float* to, std::size_t count);
/// Writes numbers with 2 or 4 bytes, low byte first.
void writeFloats(ByteSink& sink, int bytes, const float* from, std::size_t count);

/// The nearest number with 16 bits, as float: infinity from 65520 on; not-a-number stays.
float roundedToHalf(float value);

std::uint64_t littleEndian(const unsigned char* bytes, int count);

}  // namespace flow_files
