#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "flow_files/formats.h"

// The channels forward.u and forward.v; the attribute vPoints tells whether v points up or down.
namespace flow_files {

namespace {

constexpr const char* kLayer = "forward";
constexpr const char* kVPoints = "vPoints";

class InputStream : public Imf::IStream {
 public:
  explicit InputStream(FileSource& file) : Imf::IStream("the file"), file_(file) {}
  bool read(char to[], int count) override {
    file_.read(to, static_cast<std::size_t>(count));
    return file_.left() > 0;
  }
  std::uint64_t tellg() override { return file_.position(); }
  void seekg(std::uint64_t position) override { file_.seek(position); }

 private:
  FileSource& file_;
};

class OutputStream : public Imf::OStream {
 public:
  explicit OutputStream(std::FILE* file) : Imf::OStream("the file"), file_(file) {}
  void write(const char from[], int count) override {
    FileSink(file_).write(from, static_cast<std::size_t>(count));
  }
  std::uint64_t tellp() override { return static_cast<std::uint64_t>(ftello(file_)); }
  void seekp(std::uint64_t position) override {
    if (fseeko(file_, static_cast<off_t>(position), SEEK_SET) != 0)
      throw std::runtime_error(std::strerror(errno));
  }

 private:
  std::FILE* file_;
};

std::string textUpToZero(FileSource& file) {
  constexpr std::size_t kLongestName = 255;
  std::string text;
  for (char c = 0; text.size() <= kLongestName; text += c) {
    file.read(&c, 1);
    if (c == '\0') return text;
  }
  throw std::runtime_error("is damaged: a name in its header is too long");
}

/// The flow of the size that the header tells, once no attribute claims more bytes than the file has.
CTensor<float> flowOfHeader(FileSource& file) {
  constexpr unsigned char kStart[] = {0x76, 0x2f, 0x31, 0x01, 2};
  constexpr unsigned kDeep = 8, kParts = 16, kLeastBytes = 4;  // two numbers of 16 bits
  unsigned char start[8];
  file.read(start, sizeof start);
  if (std::memcmp(start, kStart, sizeof kStart) != 0) throw std::runtime_error("is no OpenEXR file");
  if ((start[5] & (kDeep | kParts)) != 0)
    throw std::runtime_error("has several parts or deep pixels, which are not read");
  std::int64_t sides[2] = {0, 0};
  for (std::string name = textUpToZero(file); !name.empty(); name = textUpToZero(file)) {
    textUpToZero(file);  // type
    unsigned char size[4], window[16];
    file.read(size, sizeof size);
    const std::uint64_t bytes = littleEndian(size, 4), next = file.position() + bytes;
    if (bytes > file.left())
      throw std::runtime_error("is damaged: it ends too early, in " + name + " of its header");
    if (name == "dataWindow" && bytes == sizeof window) {
      file.read(window, sizeof window);
      const auto edge = [&window](int i) {
        return static_cast<std::int32_t>(littleEndian(window + 4 * i, 4));
      };
      for (int i = 0; i < 2; ++i)
        sides[i] = std::max<std::int64_t>(0, std::int64_t{edge(i + 2)} - edge(i) + 1);
    }
    file.seek(next);
  }
  return newFlow(static_cast<std::uint64_t>(sides[0]), static_cast<std::uint64_t>(sides[1]), kLeastBytes,
                 kMostInflated * file.size());
}

/// What comes before u and v in the names of the channels: the layer's name and a dot, or nothing.
std::string layerIn(const Imf::ChannelList& channels) {
  std::vector<std::string> found;
  for (auto at = channels.begin(); at != channels.end(); ++at) {
    const std::string name = at.name();
    std::string layer = name.substr(0, name.size() - 1);
    const bool ends = name.back() == 'u' && (layer.empty() || layer.back() == '.');
    if (!ends || !channels.findChannel(layer + "v")) continue;
    if (layer == std::string(kLayer) + ".") return layer;
    found.push_back(layer);
  }
  if (found.empty()) throw std::runtime_error("has no channels forward.u and forward.v, nor others named so");
  if (found.size() > 1)
    throw std::runtime_error("has several layers with u and v, and none is named forward");
  return found[0];
}

/// Where v points.
bool isUp(const Imf::Header& header, Notes& notes) {
  const auto* const attribute = header.findTypedAttribute<Imf::StringAttribute>(kVPoints);
  if (!attribute) {
    notes.emplace_back("does not tell where v points (attribute vPoints); taken for up");
    return true;
  }
  if (attribute->value() != "up" && attribute->value() != "down") {
    throw std::runtime_error("says that v points '" + attribute->value() + "', neither up nor down");
  }
  return attribute->value() == "up";
}

void turn(CTensor<float>& flow) {
  float* const v = flow.data() + flow.size() / 2;
  std::transform(v, flow.data() + flow.size(), v, [](float value) { return -value; });
}

CTensor<float> readPixels(FileSource& source, CTensor<float> flow, Notes& notes) {
  source.seek(0);
  InputStream stream(source);
  Imf::InputFile file(stream);
  const std::string layer = layerIn(file.header().channels());
  const Imath::Box2i window = file.header().dataWindow();
  Imf::FrameBuffer frame;
  for (int z = 0; z < 2; ++z) {
    const std::string name = layer + (z == 0 ? "u" : "v");
    const Imf::Channel& channel = file.header().channels()[name];
    if (channel.xSampling != 1 || channel.ySampling != 1) {
      throw std::runtime_error("has no value of " + name + " for each pixel");
    }
    frame.insert(name, Imf::Slice::Make(Imf::FLOAT, &flow(0, 0, z), window, sizeof(float),
                                        sizeof(float) * flow.sizeX()));
  }
  if (!file.isComplete()) throw std::runtime_error("is damaged: not all of its pixels are there");
  file.setFrameBuffer(frame);
  file.readPixels(window.min.y, window.max.y);
  if (isUp(file.header(), notes)) turn(flow);
  return flow;
}

void encodeExr(std::FILE* file, const CTensor<float>& flow, int bytes,
               const tool::FlowWriteOptions& options) {
  CTensor<float> turned = flow;
  if (options.exrUp) turn(turned);
  const std::vector<Imath::half> halves(turned.data(), turned.data() + (bytes == 2 ? turned.size() : 0));
  const Imf::PixelType type = bytes == 2 ? Imf::HALF : Imf::FLOAT;
  Imf::Header header(flow.sizeX(), flow.sizeY());
  header.compression() = Imf::ZIP_COMPRESSION;
  header.insert(kVPoints, Imf::StringAttribute(options.exrUp ? "up" : "down"));
  Imf::FrameBuffer frame;
  const auto size = static_cast<std::size_t>(bytes);
  const void* const planes = bytes == 2 ? static_cast<const void*>(halves.data()) : turned.data();
  for (int z = 0; z < 2; ++z) {
    const std::string name = std::string(kLayer) + (z == 0 ? ".u" : ".v");
    header.channels().insert(name, Imf::Channel(type));
    const auto* const plane = static_cast<const char*>(planes) + z * size * (flow.size() / 2);
    frame.insert(name, Imf::Slice(type, const_cast<char*>(plane), size, size * flow.sizeX()));  // only read
  }
  try {
    OutputStream stream(file);
    {
      Imf::OutputFile output(stream, header);
      output.setFrameBuffer(frame);
      output.writePixels(flow.sizeY());
    }  // writes where the rows are
    FileSink(file).flush();
  } catch (const Iex::BaseExc& error) {
    throw std::runtime_error(error.what());
  }
}

}  // namespace

CTensor<float> decodeExr(const std::string& path, Notes& notes) {
  FileSource file(path);
  try {
    return readPixels(file, flowOfHeader(file), notes);
  } catch (const Iex::BaseExc& error) {
    throw std::runtime_error(std::string("is damaged: ") + error.what());
  }
}

Encode exrEncoder() {
  return encodeExr;
}

}  // namespace flow_files
