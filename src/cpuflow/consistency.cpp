#include <tarvo/NFlow.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "device/device.h"

namespace {

constexpr float kShare = 0.01f;  // of the squared motions
constexpr float kSlack = 0.5f;   // [pixels^2]

/// Plane k at (x, y), which lies inside: along x first, then along y.
float sample(const CTensor<float>& planes, float x, float y, int k) {
  const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
  const int x1 = std::min(x0 + 1, planes.sizeX() - 1), y1 = std::min(y0 + 1, planes.sizeY() - 1);
  const float fx = x - static_cast<float>(x0), fy = y - static_cast<float>(y0);
  const auto along = [&](int row) {
    return std::fmaf(fx, planes(x1, row, k) - planes(x0, row, k), planes(x0, row, k));
  };
  const float top = along(y0);
  return std::fmaf(fy, along(y1) - top, top);
}

/// False for what is not a number.
bool isInside(const CTensor<float>& planes, float x, float y) {
  return x >= 0.0f && x <= static_cast<float>(planes.sizeX() - 1) && y >= 0.0f &&
         y <= static_cast<float>(planes.sizeY() - 1);
}

/// False for what is not a number.
bool visible(const CTensor<float>& forward, const CTensor<float>& backward, int x, int y) {
  const float u = forward(x, y, 0), v = forward(x, y, 1);
  const float toX = static_cast<float>(x) + u, toY = static_cast<float>(y) + v;
  if (!isInside(forward, toX, toY)) return false;
  const float backU = sample(backward, toX, toY, 0), backV = sample(backward, toX, toY, 1);
  const float apart = (u + backU) * (u + backU) + (v + backV) * (v + backV);
  return apart <= kShare * (u * u + v * v + backU * backU + backV * backV) + kSlack;
}

std::string size(const CTensor<float>& planes) {
  return std::to_string(planes.sizeX()) + " x " + std::to_string(planes.sizeY()) + " x " +
         std::to_string(planes.sizeZ());
}

}  // namespace

CTensor<float> NFlow::warp(const CTensor<float>& image, const CTensor<float>& flow, float outside) {
  if (image.sizeX() != flow.sizeX() || image.sizeY() != flow.sizeY() || flow.sizeZ() != 2 ||
      image.size() == 0) {
    throw std::invalid_argument(
        "NFlow::warp: flow must be w x h x 2 and image of its width and height, got " + size(flow) + " and " +
        size(image));
  }
  CTensor<float> warped(image.sizeX(), image.sizeY(), image.sizeZ());
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      const float toX = static_cast<float>(x) + flow(x, y, 0), toY = static_cast<float>(y) + flow(x, y, 1);
      const bool inside = isInside(image, toX, toY);
      for (int k = 0; k < image.sizeZ(); ++k) warped(x, y, k) = inside ? sample(image, toX, toY, k) : outside;
    }
  }
  return warped;
}

std::vector<std::uint8_t> NFlow::consistency(const CTensor<float>& forward, const CTensor<float>& backward) {
  if (size(forward) != size(backward) || forward.sizeZ() != 2 || forward.size() == 0) {
    throw std::invalid_argument(
        "NFlow::consistency: forward and backward must be of one size w x h x 2, got " + size(forward) +
        " and " + size(backward));
  }
  const device::Entry entry;
  std::vector<std::uint8_t> mask;
  mask.reserve(static_cast<std::size_t>(forward.size()) / 2);
  for (int y = 0; y < forward.sizeY(); ++y) {
    for (int x = 0; x < forward.sizeX(); ++x) mask.push_back(visible(forward, backward, x, y) ? 0 : 255);
  }
  return mask;
}
