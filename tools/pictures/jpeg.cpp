#include <cstdio>

#include <jpeglib.h>

#include <jerror.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <stdexcept>

#include "pictures/formats.h"

// libjpeg reports an error by a function that must not return: it jumps back. Functions that set up a place
// to jump to hold no objects with destructors; everything lives in the struct of their caller.
namespace pictures {

namespace {

constexpr int kMostScans = 100;  // of a progressive picture; encoders make about ten
constexpr int kExif = JPEG_APP0 + 1;
constexpr unsigned kExifBytes = 4096;  // the orientation is among the first entries

struct Decoder {
  explicit Decoder(Input& from) : input(from) {}
  ~Decoder() { jpeg_destroy_decompress(&info); }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  Input& input;
  jpeg_decompress_struct info{};
  jpeg_error_mgr errors{};
  jpeg_source_mgr source{};
  jpeg_progress_mgr progress{};
  unsigned char buffer[4096];
  std::jmp_buf jump{};
  std::string error;
  std::string warning;
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
      if (decoder->warning.empty()) {  // the first tells enough
        decoder->warning = textOf(info);
      }
  }
}

Decoder& decoderOf(j_decompress_ptr info) {
  return *static_cast<Decoder*>(info->client_data);
}

boolean fillBuffer(j_decompress_ptr info) {
  Decoder& d = decoderOf(info);
  d.source.next_input_byte = d.buffer;
  d.source.bytes_in_buffer = d.input.read(d.buffer, sizeof d.buffer);
  if (d.source.bytes_in_buffer == 0) {
    ERREXIT(info, JERR_INPUT_EOF);
  }
  return TRUE;
}

void skipBytes(j_decompress_ptr info, long count) {
  jpeg_source_mgr& source = decoderOf(info).source;
  for (; count > static_cast<long>(source.bytes_in_buffer); fillBuffer(info)) {
    count -= static_cast<long>(source.bytes_in_buffer);
  }
  if (count > 0) {
    source.next_input_byte += count;
    source.bytes_in_buffer -= static_cast<std::size_t>(count);
  }
}

/// Scans that hold next to nothing cost as much time as others: a small file could ask for hours.
void limitScans(j_common_ptr info) {
  auto* decoder = static_cast<Decoder*>(info->client_data);
  if (decoder->info.input_scan_number > kMostScans) {
    decoder->error = "it has more than " + std::to_string(kMostScans) + " scans";
    std::longjmp(decoder->jump, 1);
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
  d.source.init_source = [](j_decompress_ptr) {};
  d.source.fill_input_buffer = fillBuffer;
  d.source.skip_input_data = skipBytes;
  d.source.resync_to_restart = jpeg_resync_to_restart;
  d.source.term_source = [](j_decompress_ptr) {};
  d.info.src = &d.source;
  d.progress.progress_monitor = limitScans;
  d.info.progress = &d.progress;
  jpeg_save_markers(&d.info, kExif, kExifBytes);
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

/// The orientation that the EXIF data in an application marker tell, 1 ... 8; 1 (upright) where they tell
/// none.
unsigned orientation(const unsigned char* bytes, unsigned size) {
  constexpr unsigned kHead = 6, kEntry = 12, kOrientation = 0x0112, kUpright = 1;
  if (size < kHead + 8 || std::memcmp(bytes, "Exif\0\0", kHead) != 0) {
    return kUpright;
  }
  const unsigned char* tiff = bytes + kHead;
  const unsigned length = size - kHead;
  const bool bigEndian = tiff[0] == 'M';
  const auto number = [&](unsigned at, unsigned count) {  // 0 beyond the end
    unsigned value = 0;
    for (unsigned i = 0; i < count && at <= length - count; ++i) {
      value |= static_cast<unsigned>(tiff[at + i]) << 8 * (bigEndian ? count - 1 - i : i);
    }
    return value;
  };
  const unsigned directory = std::min(number(4, 4), length);
  for (unsigned i = 0; i < number(directory, 2); ++i) {
    const unsigned entry = directory + 2 + i * kEntry;
    if (number(entry, 2) == kOrientation) {
      return number(entry + 8, 2);
    }
  }
  return kUpright;
}

void noteOrientation(const Decoder& decoder) {
  for (const jpeg_marker_struct* marker = decoder.info.marker_list; marker; marker = marker->next) {
    const unsigned turned = orientation(marker->data, marker->data_length);
    if (turned >= 2 && turned <= 8) {
      decoder.input.notes.push_back("read as stored, not turned as its EXIF orientation (" +
                                    std::to_string(turned) + ") asks");
      return;
    }
  }
}

}  // namespace

CTensor<float> decodeJpeg(Input& input) {
  Decoder decoder(input);
  const auto check = [&decoder](bool good) {
    if (!good) {
      throw std::runtime_error("is damaged or not supported: " + decoder.error);
    }
  };
  check(readHeader(decoder));
  if (decoder.info.num_components == 4) {
    throw std::runtime_error("is a CMYK picture; only grey and RGB are read");
  }
  CTensor<float> picture = input.newPicture(decoder.info.image_width, decoder.info.image_height);
  noteOrientation(decoder);
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
  if (!decoder.warning.empty()) {
    input.notes.push_back(decoder.warning);
  }
  return picture;
}

}  // namespace pictures
