#include <cctype>
#include <stdexcept>

#include "pictures/formats.h"

namespace pictures {

namespace {

constexpr unsigned kLargestMaximum = 65535;

/// Reads numbers and samples one after the other and refuses to go beyond the end.
class Reader {
 public:
  explicit Reader(const Bytes& file) : file_(file) {}

  std::size_t left() const { return file_.size() - position_; }

  unsigned byte() {
    if (left() == 0) {
      throw std::runtime_error("is damaged: it ends too early");
    }
    return file_[position_++];
  }

  /// The next decimal number, after white space and comments; limited to 2^31 - 1.
  unsigned long number() {
    skipSpace();
    unsigned long value = 0;
    if (left() == 0 || !std::isdigit(file_[position_])) {
      throw std::runtime_error(left() == 0
                                   ? "is damaged: it ends too early"
                                   : "is damaged: a number is expected at byte " + std::to_string(position_));
    }
    while (left() > 0 && std::isdigit(file_[position_])) {
      value = 10 * value + (byte() - '0');
      if (value > 0x7fffffff) {
        throw std::runtime_error("is damaged: a number is too large");
      }
    }
    return value;
  }

  bool onlySpaceLeft() const {
    for (std::size_t i = position_; i < file_.size(); ++i) {
      if (!std::isspace(file_[i])) {
        return false;
      }
    }
    return true;
  }

 private:
  void skipSpace() {
    while (left() > 0) {
      if (file_[position_] == '#') {
        while (left() > 0 && file_[position_] != '\n') {
          ++position_;
        }
      } else if (std::isspace(file_[position_])) {
        ++position_;
      } else {
        break;
      }
    }
  }

  const Bytes& file_;
  std::size_t position_ = 0;
};

struct Header {
  bool plain;    // numbers as text
  int channels;  // 1 or 3
  unsigned long width, height;
  unsigned maximum;
};

Header readHeader(Reader& reader) {
  Header header{};
  reader.byte();  // 'P'
  const unsigned kind = reader.byte();
  header.plain = kind == '2' || kind == '3';
  header.channels = kind == '2' || kind == '5' ? 1 : 3;
  header.width = reader.number();
  header.height = reader.number();
  const unsigned long maximum = reader.number();
  if (maximum < 1 || maximum > kLargestMaximum) {
    throw std::runtime_error("is damaged: its maximum is " + std::to_string(maximum));
  }
  header.maximum = static_cast<unsigned>(maximum);
  if (!std::isspace(reader.byte())) {  // exactly one before the samples
    throw std::runtime_error("is damaged: white space is missing after the maximum");
  }
  return header;
}

/// Throws if the rest of the file is too short for the picture, before memory is taken for it.
void checkLength(const Reader& reader, const Header& header) {
  const std::size_t perSample = header.plain || header.maximum > 255 ? 2 : 1;
  const std::size_t samples = header.channels * static_cast<std::size_t>(header.width) * header.height;
  // The last number of a plain file needs no white space after it.
  if ((reader.left() + (header.plain ? 1 : 0)) / perSample < samples) {
    throw std::runtime_error("is damaged: it ends too early for " + std::to_string(header.width) + " x " +
                             std::to_string(header.height) + " pixels");
  }
}

float readSample(Reader& reader, const Header& header) {
  unsigned long value = 0;
  if (header.plain) {
    value = reader.number();
  } else {
    value = reader.byte();
    if (header.maximum > 255) {
      value = 256 * value + reader.byte();
    }
  }
  if (value > header.maximum) {
    throw std::runtime_error("is damaged: the value " + std::to_string(value) + " is above the maximum " +
                             std::to_string(header.maximum));
  }
  return static_cast<float>(value) * 255.f / static_cast<float>(header.maximum);
}

}  // namespace

CTensor<float> decodePnm(const Bytes& file, Notes& notes) {
  Reader reader(file);
  const Header header = readHeader(reader);
  checkLength(reader, header);
  CTensor<float> picture = newPicture(header.width, header.height);
  for (int y = 0; y < picture.sizeY(); ++y) {
    for (int x = 0; x < picture.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        picture(x, y, z) = z < header.channels ? readSample(reader, header) : picture(x, y, 0);
      }
    }
  }
  if (!reader.onlySpaceLeft()) {
    notes.push_back("data after the picture ignored");
  }
  return picture;
}

}  // namespace pictures
