#include "flow_files/npy.h"

#include <cstring>
#include <stdexcept>

#include "flow_files/formats.h"

namespace flow_files {

namespace {

constexpr char kMagic[] = "\x93NUMPY";
constexpr std::size_t kMagicBytes = sizeof kMagic - 1;
constexpr std::uint64_t kLongestText = 65536;

/// Reads the text of a header from left to right.
class HeaderText {
 public:
  explicit HeaderText(std::string text) : text_(std::move(text)) {}

  /// The next character that is no white space, 0 at the end; it stays the next.
  char peek() {
    while (at_ < text_.size() && std::strchr(" \t\r\n", text_[at_]) != nullptr) ++at_;
    return at_ < text_.size() ? text_[at_] : '\0';
  }
  bool takes(char wanted) {
    if (peek() != wanted) return false;
    ++at_;
    return true;
  }
  void expect(char wanted) {
    if (!takes(wanted)) fail();
  }
  /// What is between two quotation marks.
  std::string quoted() {
    const char mark = peek();
    if (mark != '\'' && mark != '"') fail();
    const std::size_t end = text_.find(mark, at_ + 1);
    if (end == std::string::npos) fail();
    std::string found = text_.substr(at_ + 1, end - at_ - 1);
    at_ = end + 1;
    return found;
  }
  bool trueOrFalse() {
    peek();
    for (const char* word : {"False", "True"}) {
      if (text_.compare(at_, std::strlen(word), word) != 0) continue;
      at_ += std::strlen(word);
      return *word == 'T';
    }
    fail();
  }
  std::uint64_t number() {
    peek();
    const std::size_t end = text_.find_first_not_of("0123456789", at_);
    if (end == std::string::npos || end == at_ || end - at_ > 18) fail();
    const std::uint64_t value = std::stoull(text_.substr(at_, end - at_));
    at_ = end;
    return value;
  }
  [[noreturn]] static void fail() {
    throw std::runtime_error("is damaged: its description of the array cannot be read");
  }

 private:
  std::string text_;
  std::size_t at_ = 0;
};

std::vector<std::uint64_t> shapeIn(HeaderText& text) {
  std::vector<std::uint64_t> shape;
  text.expect('(');
  while (!text.takes(')')) {
    shape.push_back(text.number());
    if (!text.takes(',') && text.peek() != ')') HeaderText::fail();
  }
  return shape;
}

/// The three entries, each once, in any order.
ArrayHeader parse(HeaderText text) {
  ArrayHeader header;
  int kinds = 0, orders = 0, shapes = 0;
  text.expect('{');
  while (!text.takes('}')) {
    const std::string key = text.quoted();
    text.expect(':');
    if (key == "descr") {
      if (text.peek() == '[') throw std::runtime_error("has records, a flow has numbers");
      header.kind = text.quoted();
      ++kinds;
    } else if (key == "fortran_order") {
      header.columnsFirst = text.trueOrFalse();
      ++orders;
    } else if (key == "shape") {
      header.shape = shapeIn(text);
      ++shapes;
    } else {
      HeaderText::fail();
    }
    if (!text.takes(',') && text.peek() != '}') HeaderText::fail();
  }
  if (kinds != 1 || orders != 1 || shapes != 1 || text.peek() != '\0') HeaderText::fail();
  if (header.kind.find('O') != std::string::npos) {
    throw std::runtime_error("has pickled objects, which are not read");
  }
  return header;
}

FloatType floatTypeOf(const std::string& kind) {
  for (const int bytes : {2, 4, 8}) {
    const std::string ending = "f" + std::to_string(bytes);
    if (kind == "<" + ending || kind == ">" + ending) return {bytes, kind[0] == '>'};
  }
  throw std::runtime_error("has elements of the kind '" + kind +
                           "', a flow has <f2, <f4, <f8, >f2, >f4 or >f8");
}

}  // namespace

std::string textOf(const std::vector<std::uint64_t>& shape) {
  std::string text = "(";
  for (const std::uint64_t side : shape) text += (text.size() > 1 ? ", " : "") + std::to_string(side);
  return text + ")";
}

ArrayHeader readArrayHeader(ByteSource& source, std::uint64_t available) {
  unsigned char start[kMagicBytes + 2], length[4];
  source.read(start, sizeof start);
  if (std::memcmp(start, kMagic, kMagicBytes) != 0) throw std::runtime_error("is no NumPy array");
  const int version = start[kMagicBytes], lengthBytes = version == 1 ? 2 : 4;
  if (version < 1 || version > 3) {
    throw std::runtime_error("has version " + std::to_string(version) + " of the format, 1 to 3 are known");
  }
  source.read(length, static_cast<std::size_t>(lengthBytes));
  const std::uint64_t size = littleEndian(length, lengthBytes);
  if (size > available || size > kLongestText) {
    throw std::runtime_error("is damaged: its header should have " + std::to_string(size) + " bytes");
  }
  std::string text(size, ' ');
  source.read(text.data(), size);
  ArrayHeader header = parse(HeaderText(std::move(text)));
  header.bytes = sizeof start + static_cast<std::uint64_t>(lengthBytes) + size;
  return header;
}

CTensor<float> readFlowArray(ByteSource& source, const ArrayHeader& header, std::uint64_t available) {
  const FloatType type = floatTypeOf(header.kind);
  if (header.shape.size() != 3 || header.shape[2] != 2) {
    throw std::runtime_error("has the shape " + textOf(header.shape) + ", a flow has (height, width, 2)");
  }
  CTensor<float> flow = newFlow(header.shape[1], header.shape[0], 2 * static_cast<std::uint64_t>(type.bytes),
                                available - header.bytes);
  const int w = flow.sizeX(), h = flow.sizeY();
  std::vector<float> line(header.columnsFirst ? h : 2 * static_cast<std::size_t>(w));
  for (int z = 0; header.columnsFirst && z < 2; ++z) {
    for (int x = 0; x < w; ++x) {
      readFloats(source, type, line.data(), line.size());
      for (int y = 0; y < h; ++y) flow(x, y, z) = line[static_cast<std::size_t>(y)];
    }
  }
  for (int y = 0; !header.columnsFirst && y < h; ++y) {
    readFloats(source, type, line.data(), line.size());
    for (int x = 0; x < w; ++x) {
      flow(x, y, 0) = line[2 * static_cast<std::size_t>(x)];
      flow(x, y, 1) = line[2 * static_cast<std::size_t>(x) + 1];
    }
  }
  return flow;
}

void writeArrayHeader(ByteSink& sink, const std::string& kind, const std::vector<int>& shape) {
  constexpr std::size_t kStart = kMagicBytes + 4, kAlignment = 64;
  std::string text = "{'descr': '" + kind + "', 'fortran_order': False, 'shape': " +
                     textOf(std::vector<std::uint64_t>(shape.begin(), shape.end())) + ", }";
  text.append((kAlignment - (kStart + text.size() + 1) % kAlignment) % kAlignment, ' ');
  text += '\n';
  const char version[] = {1, 0, static_cast<char>(text.size()), 0};
  sink.write(kMagic, kMagicBytes);
  sink.write(version, sizeof version);
  sink.write(text.data(), text.size());
}

void writeFlowArray(ByteSink& sink, const CTensor<float>& flow, int bytes) {
  writeArrayHeader(sink, bytes == 2 ? "<f2" : "<f4", {flow.sizeY(), flow.sizeX(), 2});
  std::vector<float> row;
  for (int y = 0; y < flow.sizeY(); ++y) {
    interleaveRow(flow, y, 2, row);
    writeFloats(sink, bytes, row.data(), row.size());
  }
}

CTensor<float> decodeNpy(const std::string& path, Notes& notes) {
  FileSource file(path);
  CTensor<float> flow = readFlowArray(file, readArrayHeader(file, file.size()), file.size());
  if (file.left() > 0) notes.push_back(std::to_string(file.left()) + " bytes after the data are ignored");
  return flow;
}

void encodeNpy(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions&) {
  FileSink sink(file);
  writeFlowArray(sink, flow, bytes);
  sink.flush();
}

}  // namespace flow_files
