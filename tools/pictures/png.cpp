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
  explicit Decoder(const Bytes& bytes)
      : file(bytes), png(png_create_read_struct(PNG_LIBPNG_VER_STRING, &log, onError, onWarning)) {
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
  const Bytes& file;
  std::size_t position = 0;
  png_structp png = nullptr;
  png_infop info = nullptr;
  png_uint_32 width = 0, height = 0;
  int channels = 0, bits = 0;
  bool transparent = false;
  std::size_t rowBytes = 0;
  Bytes samples;
  std::vector<png_bytep> rows;
};

void readBytes(png_structp png, png_bytep target, std::size_t count) {
  auto* decoder = static_cast<Decoder*>(png_get_io_ptr(png));
  if (decoder->file.size() - decoder->position < count) {
    png_error(png, "it ends too early");
  }
  std::memcpy(target, decoder->file.data() + decoder->position, count);
  decoder->position += count;
}

/// Reads the header and asks for grey or RGB values of 8 or 16 bits. False after an error.
bool readHeader(Decoder& d) {
  if (setjmp(png_jmpbuf(d.png))) {
    return false;
  }
  png_set_read_fn(d.png, &d, readBytes);
  png_set_user_limits(d.png, 0x7fffffff, 0x7fffffff);
  png_read_info(d.png, d.info);
  d.width = png_get_image_width(d.png, d.info);
  d.height = png_get_image_height(d.png, d.info);
  const int type = png_get_color_type(d.png, d.info);
  d.transparent = (type & PNG_COLOR_MASK_ALPHA) != 0 || png_get_valid(d.png, d.info, PNG_INFO_tRNS) != 0;
  if (type == PNG_COLOR_TYPE_PALETTE) {
    png_set_palette_to_rgb(d.png);
  } else if (png_get_bit_depth(d.png, d.info) < 8) {
    png_set_expand_gray_1_2_4_to_8(d.png);
  }
  png_set_strip_alpha(d.png);
  png_set_interlace_handling(d.png);
  png_read_update_info(d.png, d.info);
  d.channels = png_get_channels(d.png, d.info);
  d.bits = png_get_bit_depth(d.png, d.info);
  d.rowBytes = png_get_rowbytes(d.png, d.info);
  return true;
}

bool readSamples(Decoder& d) {
  if (setjmp(png_jmpbuf(d.png))) {
    return false;
  }
  png_read_image(d.png, d.rows.data());
  png_read_end(d.png, nullptr);
  return true;
}

/// Takes memory for the samples, unless the file cannot hold that many: its compression stays below 1100 : 1,
/// and a sample of 8 bits may come from one bit of a palette.
void prepareSamples(Decoder& d) {
  constexpr double kMostPerByte = 1100.0 * 8 * 3;
  if (double(d.rowBytes) * d.height > kMostPerByte * double(d.file.size())) {
    throw std::runtime_error("is damaged: it is too short for " + std::to_string(d.width) + " x " +
                             std::to_string(d.height) + " pixels");
  }
  d.samples.resize(d.rowBytes * d.height);
  d.rows.resize(d.height);
  for (std::size_t y = 0; y < d.height; ++y) {
    d.rows[y] = d.samples.data() + y * d.rowBytes;
  }
}

void copySamples(const Decoder& d, CTensor<float>& picture) {
  const int step = d.bits / 8;
  for (int y = 0; y < picture.sizeY(); ++y) {
    const unsigned char* row = d.rows[y];
    for (int x = 0; x < picture.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        const unsigned char* at = row + (std::size_t(x) * d.channels + std::min(z, d.channels - 1)) * step;
        picture(x, y, z) = step == 1 ? at[0] : static_cast<float>(256 * at[0] + at[1]) / 257.f;
      }
    }
  }
}

struct Encoder {
  explicit Encoder(const std::string& path) : file(std::fopen(path.c_str(), "wb")) {
    if (!file) {
      throw std::runtime_error(std::string("cannot be written (") + std::strerror(errno) + ")");
    }
    png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &log, onError, onWarning);
    info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
      png_destroy_write_struct(&png, nullptr);
      std::fclose(file);
      throw std::bad_alloc();
    }
  }
  ~Encoder() {
    png_destroy_write_struct(&png, &info);
    if (file) {
      std::fclose(file);
    }
  }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  Log log;
  std::FILE* file;
  png_structp png = nullptr;
  png_infop info = nullptr;
  std::vector<unsigned char> row;
};

unsigned char toByte(float value) {
  return value > 0 ? static_cast<unsigned char>(std::lround(std::min(value, 255.f))) : 0;
}

bool writeRows(Encoder& e, const CTensor<float>& rgb) {
  if (setjmp(png_jmpbuf(e.png))) {
    return false;
  }
  png_init_io(e.png, e.file);
  png_set_user_limits(e.png, 0x7fffffff, 0x7fffffff);
  png_set_IHDR(e.png, e.info, rgb.sizeX(), rgb.sizeY(), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(e.png, e.info);
  for (int y = 0; y < rgb.sizeY(); ++y) {
    for (int x = 0; x < rgb.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        e.row[3 * static_cast<std::size_t>(x) + z] = toByte(rgb(x, y, z));
      }
    }
    png_write_row(e.png, e.row.data());
  }
  png_write_end(e.png, nullptr);
  return true;
}

}  // namespace

CTensor<float> decodePng(const Bytes& file, Notes& notes) {
  Decoder decoder(file);
  if (!readHeader(decoder)) {
    throw std::runtime_error("is damaged: " + decoder.log.error);
  }
  prepareSamples(decoder);
  CTensor<float> picture = newPicture(decoder.width, decoder.height);
  if (!readSamples(decoder)) {
    throw std::runtime_error("is damaged: " + decoder.log.error);
  }
  copySamples(decoder, picture);
  if (decoder.transparent) {
    notes.push_back("transparency dropped");
  }
  return picture;
}

}  // namespace pictures

void writePng(const std::string& path, const CTensor<float>& rgb) {
  try {
    if (rgb.sizeX() < 1 || rgb.sizeY() < 1 || rgb.sizeZ() != 3) {
      throw std::runtime_error("has no pixels to write, or not three planes");
    }
    pictures::Encoder encoder(path);
    encoder.row.resize(3 * static_cast<std::size_t>(rgb.sizeX()));
    if (!pictures::writeRows(encoder, rgb)) {
      throw std::runtime_error("cannot be written (" + encoder.log.error + ")");
    }
    std::FILE* file = encoder.file;
    encoder.file = nullptr;
    if (std::fclose(file) != 0) {
      throw std::runtime_error(std::string("cannot be written (") + std::strerror(errno) + ")");
    }
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}
