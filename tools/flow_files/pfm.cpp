#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "flow_files/formats.h"

// "PF", width, height and scale as text with white space between, one byte of white space, then the rows from the
// bottom upwards with three numbers of 4 bytes for each pixel. A negative scale tells that the low byte is first.
namespace flow_files {

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

/// The next word of the header, with the byte after it taken.
std::string nextWord(FileSource& file) {
  constexpr std::size_t kLongest = 40;
  std::string word;
  for (std::size_t i = 0; i < 2 * kLongest; ++i) {
    char c = 0;
    file.read(&c, 1);
    if (!isSpace(c)) {
      word += c;
    } else if (!word.empty()) {
      return word;
    }
  }
  throw std::runtime_error("is damaged: its header has a word of more than " + std::to_string(kLongest) +
                           " characters");
}

std::uint64_t nextSize(FileSource& file) {
  const std::string word = nextWord(file);
  if (word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos) {
    throw std::runtime_error("is damaged: width or height is " + word);
  }
  return std::strtoul(word.c_str(), nullptr, 10);
}

}  // namespace

CTensor<float> decodePfm(const std::string& path, Notes& notes) {
  FileSource file(path);
  const std::string tag = nextWord(file);
  if (tag == "Pf") throw std::runtime_error("has one value for each pixel, a flow has two");
  if (tag != "PF" && tag != "PF2") throw std::runtime_error("is no PFM file");
  const std::size_t channels = tag == "PF" ? 3 : 2;
  const std::uint64_t width = nextSize(file), height = nextSize(file);
  const std::string word = nextWord(file);
  char* end = nullptr;
  const double scale = std::strtod(word.c_str(), &end);
  if (*end != '\0' || !std::isfinite(scale) || scale == 0) {
    throw std::runtime_error("is damaged: its scale is " + word);
  }
  if (std::abs(scale) != 1) notes.push_back("its scale, " + word + ", is not applied");
  CTensor<float> flow = newFlow(width, height, channels * sizeof(float), file.left());
  std::vector<float> row(channels * width);
  for (int y = flow.sizeY() - 1; y >= 0; --y) {
    readFloats(file, {4, scale > 0}, row.data(), row.size());
    for (int x = 0; x < flow.sizeX(); ++x) {
      flow(x, y, 0) = row[channels * static_cast<std::size_t>(x)];
      flow(x, y, 1) = row[channels * static_cast<std::size_t>(x) + 1];
    }
  }
  if (file.left() > 0) notes.push_back(std::to_string(file.left()) + " bytes after the data are ignored");
  return flow;
}

void encodePfm(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions&) {
  FileSink sink(file);
  const std::string header =
      "PF\n" + std::to_string(flow.sizeX()) + " " + std::to_string(flow.sizeY()) + "\n-1.0\n";
  sink.write(header.data(), header.size());
  std::vector<float> row;
  for (int y = flow.sizeY() - 1; y >= 0; --y) {
    interleaveRow(flow, y, 3, row);
    writeFloats(sink, bytes, row.data(), row.size());
  }
  sink.flush();
}

}  // namespace flow_files
