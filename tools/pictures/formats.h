#pragma once

#include <tarvo/CTensor.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace pictures {

/// A picture file or pipe, read piece by piece, and no further than a picture of its size can need. What the
/// decoders find out goes here as well.
class Input {
 public:
  /// @param like  a picture whose size the new one must have, or null
  Input(const std::string& path, const CTensor<float>* like);
  /// Pictures one behind the other in a stream, which stays open; this reads the next.
  explicit Input(std::FILE* stream);

  /// Reads up to `count` bytes; fewer only at the end and after a failure.
  std::size_t read(unsigned char* bytes, std::size_t count);
  /// The next byte, or EOF.
  int byte();
  /// The same, which stays the next one.
  int peek();
  /// Why the bytes ended before the file did; empty if they did not.
  const std::string& failure() const { return failure_; }

  /// An uninitialised width x height x 3 tensor; to be called as soon as the size is known, before anything
  /// of that size is allocated. Throws where the size is not one of `like`, not positive or too large.
  CTensor<float> newPicture(unsigned long width, unsigned long height);

  /// What should be known about the picture, without the file's name.
  std::vector<std::string> notes;

 private:
  bool mayRead(std::size_t count);
  void noteError();

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
  const CTensor<float>* like_;
  std::size_t left_;  // bytes that may still be read
  std::string failure_;
};

/// The readers behind readPicture, one per kind. They throw std::runtime_error with the reason alone.
CTensor<float> decodePng(Input& input);
CTensor<float> decodeJpeg(Input& input);
/// Reads no further than the picture goes where others may follow it.
CTensor<float> decodePnm(Input& input, bool othersFollow = false);

/// The reason for a file of no known kind.
constexpr const char* kNotAPicture = "is not a PNG, JPEG, PGM or PPM picture";

}  // namespace pictures
