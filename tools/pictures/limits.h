#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

namespace pictures {

/// "640 x 480"
inline std::string sizeText(std::uint64_t width, std::uint64_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

/// Throws std::runtime_error with the reason for a size that the flow functions of the library do not accept:
/// 15 planes whose rows are padded by less than 64 values are indexed with an int.
inline void checkSize(std::uint64_t width, std::uint64_t height) {
  constexpr std::uint64_t kMostValues = std::numeric_limits<int>::max() / 15;
  if (width == 0 || height == 0) {
    throw std::runtime_error("has no pixels (" + sizeText(width, height) + " pixels)");
  }
  if (width > kMostValues - 64 || height > kMostValues / (width + 64)) {
    throw std::runtime_error("is too large (" + sizeText(width, height) +
                             " pixels; about 143 million are the most)");
  }
}

}  // namespace pictures
