#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "flow_files/formats.h"
#include "pictures/formats.h"
#include "pictures/picture.h"

namespace flow_files {

namespace {

constexpr float kSteps = 64.0f, kZero = 32768.0f, kMost = 65535.0f;

/// Checks, before memory is taken, that the file is a PNG of the right kind that can hold its pixels.
CTensor<float> flowOfHeader(const std::string& path) {
  constexpr unsigned char kStart[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n',
                                      0,    0,   0,   13,  'I',  'H',  'D',  'R'};
  constexpr unsigned char kKind[] = {16, 2};  // bits for each of red, green and blue
  FileSource file(path);
  unsigned char header[26];
  file.read(header, sizeof header);
  if (std::memcmp(header, kStart, sizeof kStart) != 0) throw std::runtime_error("is no PNG file");
  if (std::memcmp(header + 24, kKind, sizeof kKind) != 0) {
    throw std::runtime_error("is a picture, no flow: that has 16 bits for each of red, green and blue");
  }
  const auto bigEndian = [&header](int at) {
    return std::uint64_t{header[at]} << 24 | std::uint64_t{header[at + 1]} << 16 | header[at + 2] << 8 |
           header[at + 3];
  };
  return newFlow(bigEndian(16), bigEndian(20), 6, kMostInflated * file.size());
}

}  // namespace

float roundedToKitti(float value) {
  const float whole = std::nearbyint(kSteps * value) + kZero;
  return whole >= 0 && whole <= kMost ? (whole - kZero) / kSteps : std::numeric_limits<float>::quiet_NaN();
}

CTensor<float> decodeKittiPng(const std::string& path, Notes&) {
  CTensor<float> flow = flowOfHeader(path);
  pictures::Input input(path, nullptr);
  const CTensor<float> picture = pictures::decodePng(input);  // values divided by 257
  const auto whole = [&picture](int x, int y, int z) { return std::nearbyint(257.0f * picture(x, y, z)); };
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      const bool valid = picture(x, y, 2) > 0;
      for (int z = 0; z < 2; ++z) {
        flow(x, y, z) = valid ? (whole(x, y, z) - kZero) / kSteps : std::numeric_limits<float>::quiet_NaN();
      }
    }
  }
  return flow;
}

void encodeKittiPng(std::FILE* file, const CTensor<float>& flow, int, const tool::FlowWriteOptions&) {
  CTensor<float> picture(flow.sizeX(), flow.sizeY(), 3);
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      const bool valid = !std::isnan(flow(x, y, 0));
      for (int z = 0; z < 2; ++z) picture(x, y, z) = valid ? kSteps * flow(x, y, z) + kZero : 0.0f;
      picture(x, y, 2) = valid ? 1.0f : 0.0f;
    }
  }
  writePng(file, picture, 16);
}

}  // namespace flow_files
