#include "api/picture_view.h"

#include <tarvo/picture.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "variational/flow/arguments.h"

namespace api {
namespace {

using NFlow::Image;

std::ptrdiff_t bytesOf(Image::Type type) {
  return type == Image::Type::UInt8 ? 1 : type == Image::Type::UInt16 ? 2 : 4;
}

/// Whether an extent of bytes lies within an address space.
bool fits(double extent) {
  return extent < static_cast<double>(std::numeric_limits<std::ptrdiff_t>::max()) / 2;
}

/// Elements from the first to the last of `count`.
double extentOf(std::ptrdiff_t stride, int count) {
  return std::abs(static_cast<double>(stride)) * (count - 1.0);
}

bool reachable(const Image& image) {
  const double extent = extentOf(image.pixelStride, image.width) + extentOf(image.rowStride, image.height) +
                        extentOf(image.channelStride, image.channels);
  return fits(extent * static_cast<double>(bytesOf(image.type)));
}

bool maskReachable(const Image& image) {
  return fits(extentOf(image.maskPixelStride, image.width) + extentOf(image.maskRowStride, image.height));
}

/// From an element's value to 0 ... 255; values that stand for that already stay as they are.
struct Range {
  float black, white;
  bool same;

  explicit Range(const Image& image)
      : black(image.black), white(image.white), same(black == 0.0f && white == 255.0f) {}
  float operator()(float value) const { return same ? value : (value - black) * 255.0f / (white - black); }
};

/// One channel.
template <class Element>
void convertPlane(const Image& image, std::ptrdiff_t offset, float* plane) {
  const auto* const data = static_cast<const Element*>(image.data) + offset;
  const Range range(image);
  for (int y = 0; y < image.height; ++y) {
    const auto* const row = data + y * image.rowStride;
    for (int x = 0; x < image.width; ++x) *plane++ = range(static_cast<float>(row[x * image.pixelStride]));
  }
}

float valueAt(const Image& image, int x, int y, int channel) {
  const std::ptrdiff_t at = y * image.rowStride + x * image.pixelStride + channel * image.channelStride;
  const Range range(image);
  switch (image.type) {
    case Image::Type::UInt8:
      return range(static_cast<const std::uint8_t*>(image.data)[at]);
    case Image::Type::UInt16:
      return range(static_cast<const std::uint16_t*>(image.data)[at]);
    case Image::Type::Float:
      break;
  }
  return range(static_cast<const float*>(image.data)[at]);
}

/// Whether n values, `stride` elements apart, are finite in 0 ... 255: no exponent has all its bits set.
bool areFinite(const float* data, std::ptrdiff_t n, std::ptrdiff_t stride, const Range& range) {
  std::uint32_t bad = 0;
  const auto add = [&bad](float value) {
    constexpr std::uint32_t kExponent = 0x7f800000u;
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    bad |= (bits & kExponent) == kExponent ? 1u : 0u;
  };
  if (stride == 1 && range.same) {  // the usual case, vectorised
    for (std::ptrdiff_t i = 0; i < n; ++i) add(data[i]);
  } else {
    for (std::ptrdiff_t i = 0; i < n; ++i) add(range(data[i * stride]));
  }
  return bad == 0;
}

bool rowIsFinite(const Image& image, int y) {
  const Range range(image);
  if (image.type != Image::Type::Float) {  // no value lies outside of the type's ends
    const float most = image.type == Image::Type::UInt8 ? 255.0f : 65535.0f;
    return std::isfinite(range(0.0f)) && std::isfinite(range(most));
  }
  const auto* const row = static_cast<const float*>(image.data) + y * image.rowStride;
  if (image.channelStride == 1 && image.pixelStride == image.channels) {
    return areFinite(row, static_cast<std::ptrdiff_t>(image.width) * image.channels, 1, range);
  }
  for (int k = 0; k < image.channels; ++k) {
    if (!areFinite(row + k * image.channelStride, image.width, image.pixelStride, range)) return false;
  }
  return true;
}

bool isMasked(const Image& image, int x, int y) {
  return image.mask != nullptr && image.mask[y * image.maskRowStride + x * image.maskPixelStride] != 0;
}

bool pixelIsFinite(const Image& image, int x, int y) {
  for (int k = 0; k < image.channels; ++k) {
    if (!std::isfinite(valueAt(image, x, y, k))) return false;
  }
  return true;
}

}  // namespace

void checkImage(const char* function, const char* name, const Image& image) {
  std::ostringstream must;
  const auto type = static_cast<int>(image.type);
  if (image.channels != 1 && image.channels != kPictureChannels) {
    must << " must have 1 or 3 channels, got " << image.channels;
  } else if (type < 0 || type > static_cast<int>(Image::Type::Float)) {
    must << ".type must be UInt8, UInt16 or Float, got " << type;
  } else if (!(std::isfinite(image.black) && std::isfinite(image.white) && image.black != image.white &&
               std::isfinite(image.white - image.black))) {
    must << ": black and white must be finite and differ, got " << image.black << " and " << image.white;
  } else if (image.pixelStride == 0 || image.rowStride == 0 ||
             (image.channels > 1 && image.channelStride == 0) || !reachable(image)) {
    must << ": pixelStride, rowStride and channelStride must not be 0 and stay in memory, got "
         << image.pixelStride << ", " << image.rowStride << " and " << image.channelStride;
  } else if (image.mask != nullptr &&
             (image.maskPixelStride == 0 || image.maskRowStride == 0 || !maskReachable(image))) {
    must << ": maskPixelStride and maskRowStride must not be 0 and stay in memory, got "
         << image.maskPixelStride << " and " << image.maskRowStride;
  } else if (image.data == nullptr) {
    must << ".data must not be null";
  } else if (reinterpret_cast<std::uintptr_t>(image.data) % static_cast<std::size_t>(bytesOf(image.type)) !=
             0) {
    must << ".data must be aligned to " << bytesOf(image.type) << " bytes, got " << image.data;
  }
  if (!must.str().empty()) throw std::invalid_argument(std::string(function) + ": " + name + must.str());
}

void checkFinite(const char* function, const char* name, const Image& image) {
  if (image.ignoreNaN) return;
  long count = 0;
  std::ostringstream first;
  for (int y = 0; y < image.height; ++y) {
    if (rowIsFinite(image, y)) continue;
    for (int x = 0; x < image.width; ++x) {
      for (int k = 0; k < image.channels; ++k) {
        if (isMasked(image, x, y) || std::isfinite(valueAt(image, x, y, k))) continue;
        if (++count == 1) first << "(" << x << ", " << y << "), channel " << k;
      }
    }
  }
  if (count == 0) return;
  throw std::invalid_argument(std::string(function) + ": " + name + " has " + std::to_string(count) +
                              " values that are not finite, the first at " + first.str() +
                              "; set ignoreNaN or a mask to leave such pixels out");
}

std::vector<float> knownPixels(const Image& image) {
  std::vector<float> known;
  if (image.mask == nullptr && !image.ignoreNaN) return known;
  const std::size_t w = static_cast<std::size_t>(image.width), h = static_cast<std::size_t>(image.height);
  for (int y = 0; y < image.height; ++y) {
    const bool finite = !image.ignoreNaN || rowIsFinite(image, y);
    if (finite && image.mask == nullptr) continue;
    for (int x = 0; x < image.width; ++x) {
      if (!isMasked(image, x, y) && (finite || pixelIsFinite(image, x, y))) continue;
      if (known.empty()) known.assign(w * h, 1.0f);
      known[static_cast<std::size_t>(y) * w + static_cast<std::size_t>(x)] = 0.0f;
    }
  }
  return known;
}

bool isDense(const Image& image) {
  const std::ptrdiff_t w = image.width, h = image.height;
  return image.type == Image::Type::Float && image.channels == kPictureChannels && image.black == 0.0f &&
         image.white == 255.0f && image.pixelStride == 1 && image.rowStride == w &&
         image.channelStride == w * h;
}

CTensor<float> convert(const Image& image) {
  CTensor<float> planes(image.width, image.height, kPictureChannels);
  for (int k = 0; k < kPictureChannels; ++k) {
    const std::ptrdiff_t offset = image.channels == 1 ? 0 : k * image.channelStride;
    float* const plane = &planes(0, 0, k);
    switch (image.type) {
      case Image::Type::UInt8:
        convertPlane<std::uint8_t>(image, offset, plane);
        break;
      case Image::Type::UInt16:
        convertPlane<std::uint16_t>(image, offset, plane);
        break;
      case Image::Type::Float:
        convertPlane<float>(image, offset, plane);
        break;
    }
  }
  return planes;
}

}  // namespace api
