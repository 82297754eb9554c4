#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "pictures/formats.h"
#include "pictures/picture.h"

// libpng reports an error by a long jump. Each function that sets up a place to jump to holds no objects with
// destructors; everything lives in the struct of its caller.
namespace pictures {

namespace {

/// Text of libpng's error, told through its error pointer.
struct Log {
  std::string error;
};

[[noreturn]] void onError(png_structp png, png_const_charp text) {
  static_cast<Log*>(png_get_error_ptr(png))->error = text;
  png_longjmp(png, 1);
}

/// Warnings are about chunks that the pixels don't depend on.
void onWarning(png_structp, png_const_charp) {}

struct Decoder {
  explicit Decoder(Input& source)
      : input(source), png(png_create_read_struct(PNG_LIBPNG_VER_STRING, &log, onError, onWarning)) {
    info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
      png_destroy_read_struct(&png, nullptr, nullptr);
      throw std::bad_alloc();
    }
  }
  ~Decoder() { png_destroy_read_struct(&png, &info, nullptr); }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  Log log;
  Input& input;
  png_structp png = nullptr;
  png_infop info = nullptr;
  png_uint_32 width = 0, height = 0;
  int channels = 0, bits = 0;
  bool transparent = false, interlaced = false;
  CTensor<float> picture;
  std::vector<unsigned char> row;
};

void readBytes(png_structp png, png_bytep target, std::size_t count) {
  if (static_cast<Decoder*>(png_get_io_ptr(png))->input.read(target, count) < count) {
    png_error(png, "it ends too early");
  }
}

/// Reads what is before the pixels. False after an error.
bool readHeader(Decoder& d) {
  if (setjmp(png_jmpbuf(d.png))) {
    return false;
  }
  png_set_read_fn(d.png, &d, readBytes);
  png_set_user_limits(d.png, 0x7fffffff, 0x7fffffff);
  png_set_chunk_cache_max(d.png, 1);  // keeps no texts, which may unpack to gigabytes
  png_read_info(d.png, d.info);
  d.width = png_get_image_width(d.png, d.info);
  d.height = png_get_image_height(d.png, d.info);
  d.interlaced = png_get_interlace_type(d.png, d.info) != PNG_INTERLACE_NONE;
  return true;
}

/// Asks for grey or RGB values of 8 or 16 bits; takes memory for a row. False after an error.
bool start(Decoder& d) {
  if (setjmp(png_jmpbuf(d.png))) {
    return false;
  }
  const int type = png_get_color_type(d.png, d.info);
  d.transparent = (type & PNG_COLOR_MASK_ALPHA) != 0 || png_get_valid(d.png, d.info, PNG_INFO_tRNS) != 0;
  if (type == PNG_COLOR_TYPE_PALETTE) {
    png_set_palette_to_rgb(d.png);
  } else if (png_get_bit_depth(d.png, d.info) < 8) {
    png_set_expand_gray_1_2_4_to_8(d.png);
  }
  png_set_strip_alpha(d.png);
  png_read_update_info(d.png, d.info);
  d.channels = png_get_channels(d.png, d.info);
  d.bits = png_get_bit_depth(d.png, d.info);
  return true;
}

/// Copies the first `count` pixels of the row that was read to every `step`-th pixel of row y, from x on.
void copyRow(Decoder& d, int y, int x, int step, int count) {
  const int bytes = d.bits / 8;
  const unsigned char* at = d.row.data();
  for (int i = 0; i < count; ++i, x += step, at += d.channels * bytes) {
    for (int z = 0; z < 3; ++z) {
      const unsigned char* value = at + std::min(z, d.channels - 1) * bytes;
      d.picture(x, y, z) = bytes == 1 ? value[0] : static_cast<float>(256 * value[0] + value[1]) / 257.f;
    }
  }
}

/// Reads the pixels, those of an interlaced picture pass by pass, and up to the end. False after an error.
bool readRows(Decoder& d) {
  if (setjmp(png_jmpbuf(d.png))) {
    return false;
  }
  const int width = d.picture.sizeX(), height = d.picture.sizeY();
  for (int pass = 0; pass < (d.interlaced ? PNG_INTERLACE_ADAM7_PASSES : 1); ++pass) {
    const int columns = d.interlaced ? PNG_PASS_COLS(width, pass) : width;
    const int rows = columns == 0 ? 0 : d.interlaced ? PNG_PASS_ROWS(height, pass) : height;
    for (int i = 0; i < rows; ++i) {
      png_read_row(d.png, d.row.data(), nullptr);
      if (d.interlaced) {
        copyRow(d, PNG_ROW_FROM_PASS_ROW(i, pass), PNG_PASS_START_COL(pass), PNG_PASS_COL_OFFSET(pass),
                columns);
      } else {
        copyRow(d, i, 0, 1, columns);
      }
    }
  }
  png_read_end(d.png, nullptr);
  return true;
}

struct Encoder {
  Encoder() : png(png_create_write_struct(PNG_LIBPNG_VER_STRING, &log, onError, onWarning)) {
    info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
      png_destroy_write_struct(&png, nullptr);
      throw std::bad_alloc();
    }
  }
  ~Encoder() { png_destroy_write_struct(&png, &info); }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  Log log;
  png_structp png = nullptr;
  png_infop info = nullptr;
  std::vector<unsigned char> row;
  std::vector<png_text> notes;
};

void writeBytes(png_structp png, png_bytep bytes, std::size_t count) {
  if (std::fwrite(bytes, 1, count, static_cast<std::FILE*>(png_get_io_ptr(png))) < count) {
    png_error(png, std::strerror(errno));
  }
}

unsigned toWhole(float value, float most) {
  return value > 0 ? static_cast<unsigned>(std::lround(std::min(value, most))) : 0;
}

void setRow(std::vector<unsigned char>& row, const CTensor<float>& rgb, int y, int bits) {
  unsigned char* to = row.data();
  for (int x = 0; x < rgb.sizeX(); ++x) {
    for (int z = 0; z < 3; ++z) {
      const unsigned value = toWhole(rgb(x, y, z), bits == 8 ? 255.f : 65535.f);
      if (bits == 16) *to++ = static_cast<unsigned char>(value >> 8);
      *to++ = static_cast<unsigned char>(value);
    }
  }
}

bool writeRows(Encoder& e, std::FILE* file, const CTensor<float>& rgb, int bits) {
  if (setjmp(png_jmpbuf(e.png))) {
    return false;
  }
  png_set_write_fn(e.png, file, writeBytes, nullptr);
  png_set_user_limits(e.png, 0x7fffffff, 0x7fffffff);
  png_set_IHDR(e.png, e.info, rgb.sizeX(), rgb.sizeY(), bits, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_text(e.png, e.info, e.notes.data(), static_cast<int>(e.notes.size()));
  png_write_info(e.png, e.info);
  for (int y = 0; y < rgb.sizeY(); ++y) {
    setRow(e.row, rgb, y, bits);
    png_write_row(e.png, e.row.data());
  }
  png_write_end(e.png, nullptr);
  return true;
}

}  // namespace

CTensor<float> decodePng(Input& input) {
  Decoder decoder(input);
  const auto check = [&decoder](bool good) {
    if (!good) {
      throw std::runtime_error("is damaged: " + decoder.log.error);
    }
  };
  check(readHeader(decoder));
  decoder.picture = input.newPicture(decoder.width, decoder.height);
  check(start(decoder));
  decoder.row.resize(png_get_rowbytes(decoder.png, decoder.info));
  check(readRows(decoder));
  if (decoder.transparent) {
    input.notes.emplace_back("transparency dropped");
  }
  return std::move(decoder.picture);
}

}  // namespace pictures

void writePng(std::FILE* file, const CTensor<float>& rgb, int bits,
              const std::vector<std::pair<std::string, std::string>>& notes) {
  if (rgb.sizeX() < 1 || rgb.sizeY() < 1 || rgb.sizeZ() != 3) {
    throw std::runtime_error("no pixels, or not three planes");
  }
  pictures::Encoder encoder;
  encoder.row.resize(3 * static_cast<std::size_t>(rgb.sizeX()) * (bits == 16 ? 2 : 1));
  for (const auto& [name, value] : notes) {
    png_text text{};
    text.compression = PNG_TEXT_COMPRESSION_NONE;
    text.key = const_cast<char*>(name.c_str());  // which libpng only reads
    text.text = const_cast<char*>(value.c_str());
    text.text_length = value.size();
    encoder.notes.push_back(text);
  }
  if (!pictures::writeRows(encoder, file, rgb, bits)) {
    throw std::runtime_error(encoder.log.error);
  }
  if (std::fflush(file) != 0) {
    throw std::runtime_error(std::strerror(errno));
  }
}
