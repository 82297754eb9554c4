#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "pictures/formats.h"
#include "pictures/limits.h"

namespace pictures {

namespace {

/// Bytes that may come before the size is known, or be no part of the pixels: profiles, thumbnails, comments.
constexpr std::size_t kMostOfHeaders = 64u << 20;
/// No kind spends more on a pixel, except a map of numbers with wide gaps: three numbers of 15 characters.
constexpr std::size_t kMostPerPixel = 48;

}  // namespace

Input::Input(const std::string& path, const CTensor<float>* like)
    : file_(nullptr, std::fclose), like_(like), left_(kMostOfHeaders) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw std::runtime_error("is a folder");
  }
  file_.reset(std::fopen(path.c_str(), "rb"));
  if (!file_) {
    throw std::runtime_error(std::string("cannot be opened (") + std::strerror(errno) + ")");
  }
}

Input::Input(std::FILE* stream)
    : file_(stream, [](std::FILE*) { return 0; }), like_(nullptr), left_(kMostOfHeaders) {}

bool Input::mayRead(std::size_t count) {
  if (left_ >= count) {
    return true;
  }
  failure_ = "is damaged: it goes on after all bytes that the picture can need";
  return false;
}

void Input::noteError() {
  failure_ = std::string("cannot be read (") + std::strerror(errno) + ")";
}

std::size_t Input::read(unsigned char* bytes, std::size_t count) {
  if (!mayRead(count)) {
    return 0;
  }
  const std::size_t got = std::fread(bytes, 1, count, file_.get());
  left_ -= got;
  if (got < count && std::ferror(file_.get())) {
    noteError();
  }
  return got;
}

int Input::byte() {
  if (!mayRead(1)) {
    return EOF;
  }
  const int value = getc_unlocked(file_.get());  // std::fread takes several times as long for a byte
  if (value != EOF) {
    --left_;
  } else if (std::ferror(file_.get())) {
    noteError();
  }
  return value;
}

int Input::peek() {
  const int value = byte();
  if (value != EOF) {
    std::ungetc(value, file_.get());
    ++left_;
  }
  return value;
}

CTensor<float> Input::newPicture(unsigned long width, unsigned long height) {
  checkSize(width, height);
  const auto w = static_cast<int>(width), h = static_cast<int>(height);
  if (like_ && (w != like_->sizeX() || h != like_->sizeY())) {
    throw std::runtime_error(
        "has " + sizeText(width, height) + " pixels, not " +
        sizeText(static_cast<std::uint64_t>(like_->sizeX()), static_cast<std::uint64_t>(like_->sizeY())) +
        " like the first picture");
  }
  left_ += kMostPerPixel * width * height;
  return CTensor<float>(w, h, 3);
}

}  // namespace pictures
