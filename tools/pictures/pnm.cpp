#include <cctype>
#include <stdexcept>

#include "pictures/formats.h"

namespace pictures {

namespace {

constexpr unsigned kLargestMaximum = 65535;

unsigned nextByte(Input& input) {
  const int value = input.byte();
  if (value == EOF) {
    throw std::runtime_error("is damaged: it ends too early");
  }
  return static_cast<unsigned>(value);
}

void skipSpace(Input& input) {
  bool comment = false;
  for (int next = input.peek(); next == '#' || std::isspace(next) || (comment && next != EOF);
       next = input.peek()) {
    comment = input.byte() == '#' || (comment && next != '\n');
  }
}

/// The next decimal number, after white space and comments; limited to 2^31 - 1.
unsigned long number(Input& input) {
  skipSpace(input);
  const unsigned first = nextByte(input);
  if (!std::isdigit(static_cast<int>(first))) {
    throw std::runtime_error("is damaged: a number is expected");
  }
  unsigned long value = first - '0';
  while (std::isdigit(input.peek())) {
    value = 10 * value + (nextByte(input) - '0');
    if (value > 0x7fffffff) {
      throw std::runtime_error("is damaged: a number is too large");
    }
  }
  return value;
}

struct Header {
  bool plain;    // numbers as text
  int channels;  // 1 or 3
  unsigned long width, height;
  unsigned maximum;
};

Header readHeader(Input& input) {
  Header header{};
  input.byte();  // 'P'
  const int kind = input.byte();
  if (kind != '2' && kind != '3' && kind != '5' && kind != '6') {
    throw std::runtime_error(kNotAPicture);
  }
  header.plain = kind == '2' || kind == '3';
  header.channels = kind == '2' || kind == '5' ? 1 : 3;
  header.width = number(input);
  header.height = number(input);
  const unsigned long maximum = number(input);
  if (maximum < 1 || maximum > kLargestMaximum) {
    throw std::runtime_error("is damaged: its maximum is " + std::to_string(maximum));
  }
  header.maximum = static_cast<unsigned>(maximum);
  if (!std::isspace(static_cast<int>(nextByte(input)))) {  // exactly one before the samples
    throw std::runtime_error("is damaged: white space is missing after the maximum");
  }
  return header;
}

float readSample(Input& input, const Header& header) {
  unsigned long value = 0;
  if (header.plain) {
    value = number(input);
  } else {
    value = nextByte(input);
    if (header.maximum > 255) {
      value = 256 * value + nextByte(input);
    }
  }
  if (value > header.maximum) {
    throw std::runtime_error("is damaged: the value " + std::to_string(value) + " is above the maximum " +
                             std::to_string(header.maximum));
  }
  return static_cast<float>(value) * 255.f / static_cast<float>(header.maximum);
}

}  // namespace

CTensor<float> decodePnm(Input& input, bool othersFollow) {
  const Header header = readHeader(input);
  CTensor<float> picture = input.newPicture(header.width, header.height);
  for (int y = 0; y < picture.sizeY(); ++y) {
    for (int x = 0; x < picture.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        picture(x, y, z) = z < header.channels ? readSample(input, header) : picture(x, y, 0);
      }
    }
  }
  while (!othersFollow && std::isspace(input.peek())) {
    input.byte();
  }
  if (!othersFollow && input.peek() != EOF) {
    input.notes.emplace_back("data after the picture ignored");
  }
  return picture;
}

}  // namespace pictures
