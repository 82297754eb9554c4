#include "pictures/picture.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>

#include <jpeglib.h>

#include "tools/run_tool.h"

namespace {

std::string bigEndian(unsigned long value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) {
    text += static_cast<char>(value >> (8 * i));
  }
  return text;
}

const Bytef* bytesOf(const std::string& text) {
  return reinterpret_cast<const Bytef*>(text.data());
}

std::string chunk(const std::string& type, const std::string& data) {
  const std::string body = type + data;
  return bigEndian(data.size(), 4) + body + bigEndian(crc32(0, bytesOf(body), uInt(body.size())), 4);
}

enum PngType { kGrey = 0, kRgb = 2, kPalette = 3, kGreyAlpha = 4, kRgbAlpha = 6 };

/// A PNG of rows that already carry their filter byte; `extra` are chunks before the data.
std::string png(int width, int height, int bits, PngType type, const std::string& rows,
                const std::string& extra = "", bool interlaced = false) {
  std::vector<Bytef> packed(compressBound(rows.size()));
  uLongf size = packed.size();
  compress(packed.data(), &size, bytesOf(rows), rows.size());
  const std::string header = bigEndian(width, 4) + bigEndian(height, 4) + bigEndian(bits, 1) +
                             bigEndian(type, 1) + bigEndian(0, 2) + bigEndian(interlaced, 1);
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR", header) + extra +
         chunk("IDAT", std::string(packed.begin(), packed.begin() + long(size))) + chunk("IEND", "");
}

using Choose = std::function<void(j_compress_ptr)>;
const Choose kBaseline = [](j_compress_ptr) {};

/// A JPEG of one colour of 1, 3 or 4 channels, with an application marker unless `exif` is empty.
std::string jpeg(
    int width, int height, const std::vector<unsigned char>& colour,
    const std::function<void(j_compress_ptr)>& choose = [](j_compress_ptr) {}, const std::string& exif = "") {
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* data = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &data, &size);
  info.image_width = width;
  info.image_height = height;
  info.input_components = static_cast<int>(colour.size());
  info.in_color_space = colour.size() == 1 ? JCS_GRAYSCALE : colour.size() == 3 ? JCS_RGB : JCS_CMYK;
  jpeg_set_defaults(&info);
  choose(&info);
  jpeg_start_compress(&info, TRUE);
  if (!exif.empty()) jpeg_write_marker(&info, JPEG_APP0 + 1, bytesOf(exif), unsigned(exif.size()));
  std::vector<unsigned char> row;
  for (int x = 0; x < width; ++x) {
    row.insert(row.end(), colour.begin(), colour.end());
  }
  while (info.next_scanline < info.image_height) {
    JSAMPROW start = row.data();
    jpeg_write_scanlines(&info, &start, 1);
  }
  jpeg_finish_compress(&info);
  std::string text(reinterpret_cast<char*>(data), size);
  jpeg_destroy_compress(&info);
  std::free(data);
  return text;
}

/// A grey JPEG that sends its coefficients one by one: 64 scans, and 63 more if the last bit comes apart.
std::string jpegOfManyScans(bool refined) {
  std::vector<jpeg_scan_info> scans{{1, {0}, 0, 0, 0, 0}};
  for (int k = 1; k < 64; ++k) scans.push_back({1, {0}, k, k, 0, refined ? 1 : 0});
  for (int k = 1; k < 64 && refined; ++k) scans.push_back({1, {0}, k, k, 1, 0});
  return jpeg(9, 9, {77}, [&](j_compress_ptr info) {
    info->scan_info = scans.data();
    info->num_scans = static_cast<int>(scans.size());
  });
}

class Pictures : public testing::Test {
 protected:
  CTensor<float> read(const std::string& bytes) {
    messages.clear();
    writeText(folder.path("picture"), bytes);
    return readPicture(folder.path("picture"), &messages, like.get());
  }

  /// The values of a picture of one row, pixel by pixel.
  std::vector<float> values(const std::string& bytes) {
    const CTensor<float> picture = read(bytes);
    std::vector<float> result;
    for (int x = 0; x < picture.sizeX(); ++x) {
      for (int z = 0; z < 3; ++z) {
        result.push_back(picture(x, 0, z));
      }
    }
    return result;
  }

  /// The reason why a file is refused, which names the file; empty if it is read.
  std::string refusal(const std::string& bytes) {
    try {
      read(bytes);
      return "";
    } catch (const std::runtime_error& error) {
      const std::string text = error.what(), name = folder.path("picture") + ": ";
      EXPECT_EQ(text.rfind(name, 0), 0u) << text;
      return text.substr(name.size());
    }
  }

  const TemporaryFolder folder;
  std::vector<std::string> messages;
  std::unique_ptr<CTensor<float>> like;
};

using Values = std::vector<float>;

const std::string kPng = png(2, 2, 8, kRgb, std::string("\0\1\2\3\4\5\6\0\7\10\11\12\13\14", 14));

std::vector<std::string> wholeFiles() {
  return {kPng,
          png(3, 1, 16, kGrey, std::string("\0\1\2\3\4\5\6", 7)),
          jpeg(17, 9, {10, 200, 60}),
          jpeg(17, 9, {10, 200, 60}, jpeg_simple_progression),
          "P5 2 2 255\nabcd",
          "P6\n# a comment\n1 2\n65535\nabcdefabcdef",
          "P3 2 1 9\n1 2 3 4 5 6",
          "P2 2 2 255 1 2 3 4"};
}

}  // namespace

TEST_F(Pictures, ReadsEveryKindOfPng) {
  EXPECT_EQ(values(png(2, 1, 8, kRgb, std::string("\0\1\2\3\xff\0\7", 7))), (Values{1, 2, 3, 255, 0, 7}));
  EXPECT_EQ(values(png(2, 1, 8, kGrey, std::string("\0\5\x80", 3))), (Values{5, 5, 5, 128, 128, 128}));
  EXPECT_EQ(values(png(3, 1, 1, kGrey, std::string("\0\xa0", 2))),
            (Values{255, 255, 255, 0, 0, 0, 255, 255, 255}));
  EXPECT_EQ(values(png(1, 1, 16, kRgb, std::string("\0\xff\xff\x01\x01\0\x80", 7))),
            (Values{255, 1, 128.f / 257}));
  const std::string palette = chunk("PLTE", std::string("\1\2\3\x0a\x14\x1e", 6));
  EXPECT_EQ(values(png(2, 1, 4, kPalette, std::string("\0\x10", 2), palette)), (Values{10, 20, 30, 1, 2, 3}));
  EXPECT_TRUE(messages.empty());
}

TEST_F(Pictures, ReadsInterlacedPng) {
  const int passes[][4] = {{0, 8, 0, 8}, {4, 8, 0, 8}, {0, 4, 4, 8}, {2, 4, 0, 4},
                           {0, 2, 2, 4}, {1, 2, 0, 2}, {0, 1, 1, 2}};  // first column, step; first row, step
  for (const auto& [w, h] : {std::pair{1, 1}, {2, 2}, {5, 3}, {9, 10}}) {
    std::string rows;
    for (const auto& [x0, stepX, y0, stepY] : passes) {
      for (int y = y0; y < h && x0 < w; y += stepY) {
        rows += '\0';
        for (int x = x0; x < w; x += stepX) rows += static_cast<char>(y * w + x);
      }
    }
    const CTensor<float> picture = read(png(w, h, 8, kGrey, rows, "", true));
    ASSERT_EQ(picture.size(), 3 * w * h);
    for (int i = 0; i < picture.size(); ++i) ASSERT_EQ(picture.data()[i], i % (w * h)) << w << " x " << h;
  }
}

TEST_F(Pictures, DropsTransparencyWithAMessage) {
  const std::string palette = chunk("PLTE", std::string("\1\2\3", 3)) + chunk("tRNS", std::string("\x10", 1));
  const std::pair<std::string, Values> cases[] = {
      {png(1, 1, 8, kGreyAlpha, std::string("\0\x40\x11", 3)), {64, 64, 64}},
      {png(1, 1, 8, kRgbAlpha, std::string("\0\1\2\3\x11", 5)), {1, 2, 3}},
      {png(1, 1, 16, kRgbAlpha, std::string("\0\1\1\2\2\3\3\0\0", 9)), {1, 2, 3}},
      {png(1, 1, 8, kPalette, std::string("\0\0", 2), palette), {1, 2, 3}},
      {png(1, 1, 8, kRgb, std::string("\0\1\2\3", 4), chunk("tRNS", std::string("\0\1\0\2\0\3", 6))),
       {1, 2, 3}}};
  for (const auto& [bytes, expected] : cases) {
    EXPECT_EQ(values(bytes), expected);
    EXPECT_EQ(messages, std::vector<std::string>{folder.path("picture") + ": transparency dropped"});
  }
}

TEST_F(Pictures, ReadsJpegInColourAndGrey) {
  constexpr float kLoss = 3;  // quantisation of one colour
  for (const Choose& kind : {kBaseline, Choose(jpeg_simple_progression)}) {
    const CTensor<float> colour = read(jpeg(19, 11, {200, 100, 30}, kind));
    ASSERT_EQ(colour.sizeX(), 19);
    ASSERT_EQ(colour.sizeY(), 11);
    EXPECT_NEAR(colour(18, 10, 0), 200, kLoss);
    EXPECT_NEAR(colour(18, 10, 1), 100, kLoss);
    EXPECT_NEAR(colour(18, 10, 2), 30, kLoss);
    const CTensor<float> grey = read(jpeg(3, 2, {77}, kind));
    EXPECT_NEAR(grey(2, 1, 0), 77, kLoss);
    EXPECT_EQ(grey(2, 1, 0), grey(2, 1, 1));
    EXPECT_EQ(grey(2, 1, 0), grey(2, 1, 2));
  }
}

TEST_F(Pictures, SaysThatAnExifOrientationIsNotFollowed) {
  const std::string intel("Exif\0\0II*\0\x08\0\0\0\2\0\1\1\3\0\1\0\0\0\6\0\0\0\x12\1\3\0\1\0\0\0\6\0\0\0",
                          40);
  const std::string motorola("Exif\0\0MM\0*\0\0\0\x08\0\1\1\x12\0\3\0\0\0\1\0\6\0\0", 28);
  for (std::string exif : {intel, motorola}) {
    read(jpeg(2, 1, {9}, kBaseline, exif));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("orientation (6)"), std::string::npos) << messages[0];
    for (std::size_t length = 1; length + 3 < exif.size(); ++length) {
      read(jpeg(2, 1, {9}, kBaseline, exif.substr(0, length)));
      EXPECT_TRUE(messages.empty()) << length;
    }
    exif[exif.rfind('\6')] = 1;  // upright
    read(jpeg(2, 1, {9}, kBaseline, exif));
    EXPECT_TRUE(messages.empty());
  }
}

TEST_F(Pictures, ReadsGreyAndPixelMaps) {
  EXPECT_EQ(values("P6 2 1 255\nabcdef"), (Values{97, 98, 99, 100, 101, 102}));
  EXPECT_EQ(values("P5 1 1\n#maximum\n255 A"), (Values{65, 65, 65}));
  EXPECT_EQ(values(std::string("P5 2 1 65535\n\xff\xff\0\x80", 17)),
            (Values{255, 255, 255, 128.f / 257, 128.f / 257, 128.f / 257}));
  EXPECT_EQ(values("P2 2 1 51 # five times\n 51\n10"), (Values{255, 255, 255, 50, 50, 50}));
  EXPECT_EQ(values("P3 1 1 65535 0 257 65535\n"), (Values{0, 1, 255}));
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(values("P5 1 1 255\nAB").size(), 3u);
  EXPECT_EQ(messages.size(), 1u);  // data after the picture
}

TEST_F(Pictures, RefusesFilesCutOffAnywhere) {
  for (const std::string& bytes : wholeFiles()) {
    ASSERT_EQ(refusal(bytes), "");
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      EXPECT_NE(refusal(bytes.substr(0, length)), "") << length << " of " << bytes.size() << " bytes";
    }
  }
}

TEST_F(Pictures, SurvivesEveryChangedByte) {
  for (const std::string& bytes : wholeFiles()) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      std::string changed = bytes;
      changed[i] = static_cast<char>(changed[i] ^ 0x55);
      const std::string reason = refusal(changed);
      if (bytes == kPng) {
        EXPECT_NE(reason, "") << "byte " << i;  // every byte of this one is under a check sum
      }
    }
  }
}

TEST_F(Pictures, RefusesWhatIsNoPictureOrDamaged) {
  const std::string whole = jpeg(64, 64, {10, 200, 60});
  const std::pair<std::string, std::string> cases[] = {
      {"", "is empty"},
      {"GIF89a", "is not a PNG, JPEG, PGM or PPM picture"},
      {"PK\3\4", "is not a PNG, JPEG, PGM or PPM picture"},
      {"P5 0 4 255\n", "no pixels"},
      {"P2 1 1 10\n11", "above the maximum"},
      {"P5 1 1 0\nA", "maximum"},
      {"P5 1 1 65536\nAA", "maximum"},
      {"P5 -1 1 255\nA", "number"},
      {"P5 99999999999 1 255\nA", "number"},
      {"P5 1 1 255A", "white space"},
      {whole.substr(0, whole.size() - 20) + "\xff\xd9", "damaged"},  // an end marker too early
      {jpeg(2, 2, {1, 2, 3, 4}), "CMYK"}};
  for (const auto& [bytes, reason] : cases) {
    EXPECT_NE(refusal(bytes).find(reason), std::string::npos) << reason << ": " << refusal(bytes);
  }
  EXPECT_THROW(readPicture(folder.path("nothing"), nullptr), std::runtime_error);
  EXPECT_THROW(readPicture(folder.path("."), nullptr), std::runtime_error);
}

TEST_F(Pictures, RefusesSizesBeforePixelsAreRead) {
  // What flow functions take: 15 planes of width + 64 columns, counted by an int. 12000 x 11867 is just
  // below.
  std::string changed = jpeg(8, 8, {9});
  for (const int height : {11867, 11868}) {
    changed.replace(changed.find("\xff\xc0") + 5, 4, bigEndian(height, 2) + bigEndian(12000, 2));
    for (const std::string& bytes :
         {"P6 12000 " + std::to_string(height) + " 255\nabc", png(12000, height, 8, kRgb, "abc"), changed}) {
      EXPECT_NE(refusal(bytes), "");
      EXPECT_EQ(refusal(bytes).find("is too large") == 0, height == 11868) << refusal(bytes);
    }
  }
  like = std::make_unique<CTensor<float>>(7, 5, 3);
  EXPECT_EQ(refusal("P5 8 5 255\n"), "has 8 x 5 pixels, not 7 x 5 like the first picture");
}

TEST_F(Pictures, EndsWithFilesThatDoNot) {
  EXPECT_THROW(readPicture("/dev/zero", nullptr), std::runtime_error);
  writeText(folder.path("comment"), "P5 #");
  std::filesystem::resize_file(folder.path("comment"), std::uintmax_t{1} << 40);
  EXPECT_THROW(readPicture(folder.path("comment"), nullptr), std::runtime_error);
  EXPECT_EQ(refusal(jpegOfManyScans(false)), "");
  EXPECT_NE(refusal(jpegOfManyScans(true)).find("scans"), std::string::npos);
}

TEST_F(Pictures, WritesRoundedAndLimitedValues) {
  CTensor<float> picture(2, 2, 3, 0.f);
  const float given[] = {-7, 0.4f, 0.6f, 254.6f, 300, std::numeric_limits<float>::quiet_NaN()};
  std::copy(given, given + 6, picture.data());
  const auto write = [](const std::string& path, const CTensor<float>& values) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    writePng(file.get(), values);
  };
  const std::string path = folder.path("written.png");
  write(path, picture);
  const CTensor<float> read = readPicture(path, nullptr);
  EXPECT_EQ(std::vector<float>(read.data(), read.data() + 6), (Values{0, 0, 1, 255, 255, 0}));
  EXPECT_THROW(write("/dev/full", picture), std::runtime_error);
  EXPECT_THROW(write(path, CTensor<float>(2, 2, 2, 0.f)), std::runtime_error);
}
