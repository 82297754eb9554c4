#include <cstdio>

#include <jpeglib.h>

#include <jerror.h>

#include <csetjmp>
#include <stdexcept>

#include "pictures/formats.h"

// libjpeg reports an error by a function that must not return: it jumps back. Functions that set up a place
// to jump to hold no objects with destructors; everything lives in the struct of their caller.
namespace pictures {

namespace {

struct Decoder {
  explicit Decoder(const Bytes& bytes) : file(bytes) {}
  ~Decoder() { jpeg_destroy_decompress(&info); }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  const Bytes& file;
  jpeg_decompress_struct info{};
  jpeg_error_mgr errors{};
  std::jmp_buf jump{};
  std::string error;
  Notes notes;
  std::vector<unsigned char> row;
};

std::string textOf(j_common_ptr info) {
  char text[JMSG_LENGTH_MAX];
  info->err->format_message(info, text);
  return text;
}

[[noreturn]] void onError(j_common_ptr info) {
  auto* decoder = static_cast<Decoder*>(info->client_data);
  decoder->error = textOf(info);
  std::longjmp(decoder->jump, 1);
}

/// Warnings that mean lost pixels are errors, the others notes.
void onMessage(j_common_ptr info, int level) {
  if (level >= 0) {
    return;  // trace messages
  }
  switch (info->err->msg_code) {
    case JWRN_JPEG_EOF:
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_ARITH_BAD_CODE:
    case JWRN_MUST_RESYNC:
      onError(info);
    default:
      auto* decoder = static_cast<Decoder*>(info->client_data);
      if (decoder->notes.empty()) {  // the first tells enough
        decoder->notes.push_back(textOf(info));
      }
  }
}

/// Reads the header. False after an error.
bool readHeader(Decoder& d) {
  d.info.err = jpeg_std_error(&d.errors);
  d.errors.error_exit = onError;
  d.errors.emit_message = onMessage;
  d.info.client_data = &d;
  if (setjmp(d.jump)) {
    return false;
  }
  jpeg_create_decompress(&d.info);
  jpeg_mem_src(&d.info, d.file.data(), d.file.size());
  jpeg_read_header(&d.info, TRUE);
  return true;
}

/// Asks for RGB. False after an error.
bool start(Decoder& d) {
  if (setjmp(d.jump)) {
    return false;
  }
  d.info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&d.info);
  return true;
}

bool readRow(Decoder& d) {
  if (setjmp(d.jump)) {
    return false;
  }
  JSAMPROW target = d.row.data();
  jpeg_read_scanlines(&d.info, &target, 1);
  return true;
}

/// Reads up to the end marker. False after an error.
bool finish(Decoder& d) {
  if (setjmp(d.jump)) {
    return false;
  }
  jpeg_finish_decompress(&d.info);
  return true;
}

}  // namespace

CTensor<float> decodeJpeg(const Bytes& file, Notes& notes) {
  Decoder decoder(file);
  const auto check = [&decoder](bool good) {
    if (!good) {
      throw std::runtime_error("is damaged or not supported: " + decoder.error);
    }
  };
  check(readHeader(decoder));
  CTensor<float> picture = newPicture(decoder.info.image_width, decoder.info.image_height);
  check(start(decoder));
  decoder.row.resize(3 * static_cast<std::size_t>(picture.sizeX()));
  for (int y = 0; y < picture.sizeY(); ++y) {
    check(readRow(decoder));
    for (int x = 0; x < picture.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        picture(x, y, z) = decoder.row[3 * static_cast<std::size_t>(x) + z];
      }
    }
  }
  check(finish(decoder));
  notes.insert(notes.end(), decoder.notes.begin(), decoder.notes.end());
  return picture;
}

}  // namespace pictures
