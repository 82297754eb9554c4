#include "api/picture_view.h"

#include <tarvo/picture.h>

#include <cmath>
#include <cstdint>
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

/// Whether all elements lie within an address space around data.
bool reachable(const Image& image) {
  double extent = 0.0;
  const auto add = [&extent](std::ptrdiff_t stride, int count) {
    extent += std::abs(static_cast<double>(stride)) * (count - 1.0);
  };
  add(image.pixelStride, image.width);
  add(image.rowStride, image.height);
  add(image.channelStride, image.channels);
  constexpr double kMost = static_cast<double>(std::numeric_limits<std::ptrdiff_t>::max()) / 2;
  return extent * static_cast<double>(bytesOf(image.type)) < kMost;
}

/// One channel; values that stand for 0 ... 255 already stay as they are.
template <class Element>
void convertPlane(const Image& image, std::ptrdiff_t offset, float* plane) {
  const auto* const data = static_cast<const Element*>(image.data) + offset;
  const bool same = image.black == 0.0f && image.white == 255.0f;
  for (int y = 0; y < image.height; ++y) {
    const auto* const row = data + y * image.rowStride;
    for (int x = 0; x < image.width; ++x) {
      const auto value = static_cast<float>(row[x * image.pixelStride]);
      *plane++ = same ? value : (value - image.black) * 255.0f / (image.white - image.black);
    }
  }
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
  } else if (image.data == nullptr) {
    must << ".data must not be null";
  } else if (reinterpret_cast<std::uintptr_t>(image.data) % static_cast<std::size_t>(bytesOf(image.type)) !=
             0) {
    must << ".data must be aligned to " << bytesOf(image.type) << " bytes, got " << image.data;
  }
  if (!must.str().empty()) throw std::invalid_argument(std::string(function) + ": " + name + must.str());
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
