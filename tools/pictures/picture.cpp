#include "pictures/picture.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>

#include "pictures/formats.h"

namespace pictures {

namespace {

Bytes readFile(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw std::runtime_error("is a folder");
  }
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) {
    throw std::runtime_error(std::string("cannot be opened (") + std::strerror(errno) + ")");
  }
  constexpr std::size_t kChunk = 1 << 20;
  Bytes bytes;
  for (;;) {
    const std::size_t size = bytes.size();
    bytes.resize(size + kChunk);
    const std::size_t count = std::fread(bytes.data() + size, 1, kChunk, file.get());
    bytes.resize(size + count);
    if (count < kChunk) {
      break;
    }
  }
  if (std::ferror(file.get())) {
    throw std::runtime_error(std::string("cannot be read (") + std::strerror(errno) + ")");
  }
  return bytes;
}

bool startsWith(const Bytes& bytes, const char* magic, std::size_t length) {
  return bytes.size() >= length && std::memcmp(bytes.data(), magic, length) == 0;
}

CTensor<float> decode(const Bytes& file, Notes& notes) {
  if (file.empty()) {
    throw std::runtime_error("is empty");
  }
  if (startsWith(file, "\x89PNG", 4)) {
    return decodePng(file, notes);
  }
  if (startsWith(file, "\xff\xd8\xff", 3)) {
    return decodeJpeg(file, notes);
  }
  for (const char* magic : {"P2", "P3", "P5", "P6"}) {
    if (startsWith(file, magic, 2)) {
      return decodePnm(file, notes);
    }
  }
  throw std::runtime_error("is not a PNG, JPEG, PGM or PPM picture");
}

}  // namespace

CTensor<float> newPicture(unsigned long width, unsigned long height) {
  const std::string size = std::to_string(width) + " x " + std::to_string(height) + " pixels";
  if (width == 0 || height == 0) {
    throw std::runtime_error("has no pixels (" + size + ")");
  }
  constexpr unsigned long kMost = std::numeric_limits<int>::max();
  if (width > kMost / 3 || height > kMost / 3 / width) {
    throw std::runtime_error("is too large (" + size + ")");
  }
  return CTensor<float>(static_cast<int>(width), static_cast<int>(height), 3);
}

}  // namespace pictures

CTensor<float> readPicture(const std::string& path, std::vector<std::string>* messages) {
  pictures::Notes notes;
  try {
    CTensor<float> picture = pictures::decode(pictures::readFile(path), notes);
    for (const std::string& note : notes) {
      if (messages) {
        messages->push_back(path + ": " + note);
      }
    }
    return picture;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}
