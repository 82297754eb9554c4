#pragma once

#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>

/// Number of elements of a container with these sizes. It fits an int, and so does the product of any of the
/// sizes, even if another size is 0.
/// @param type  the container's name, for the message
/// @throws std::length_error  a negative size or a product that is too large; the message names all sizes
template <typename... Sizes>
int elementCount(const char* type, Sizes... sizes) {
  std::string text;
  std::int64_t product = 1;
  bool negative = false;
  bool overflow = false;
  bool empty = false;
  for (int size : {sizes...}) {
    text += (text.empty() ? "" : " x ") + std::to_string(size);
    negative = negative || size < 0;
    empty = empty || size == 0;
    // Both factors are below 2^31; once too large, the product no longer matters.
    product *= overflow || size == 0 ? 1 : size;
    overflow = overflow || product > INT_MAX;
  }
  if (negative) throw std::length_error(std::string(type) + ": negative size in " + text);
  if (overflow) throw std::length_error(std::string(type) + ": too many elements in " + text);
  return empty ? 0 : static_cast<int>(product);
}
