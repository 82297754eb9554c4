#include <tarvo/NFlow.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "device/device.h"

namespace {

constexpr float kShare = 0.01f;  // of the squared motions
constexpr float kSlack = 0.5f;   // [pixels^2]

/// Plane k at (x, y), which lies inside: along x first, then along y.
float sample(const CTensor<float>& flow, float x, float y, int k) {
  const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
  const int x1 = std::min(x0 + 1, flow.sizeX() - 1), y1 = std::min(y0 + 1, flow.sizeY() - 1);
  const float fx = x - static_cast<float>(x0), fy = y - static_cast<float>(y0);
  const auto along = [&](int row) {
    return std::fmaf(fx, flow(x1, row, k) - flow(x0, row, k), flow(x0, row, k));
  };
  const float top = along(y0);
  return std::fmaf(fy, along(y1) - top, top);
}

/// False for what is not a number.
bool visible(const CTensor<float>& forward, const CTensor<float>& backward, int x, int y) {
  const float u = forward(x, y, 0), v = forward(x, y, 1);
  const float toX = static_cast<float>(x) + u, toY = static_cast<float>(y) + v;
  const bool inside = toX >= 0.0f && toX <= static_cast<float>(forward.sizeX() - 1) && toY >= 0.0f &&
                      toY <= static_cast<float>(forward.sizeY() - 1);
  if (!inside) return false;
  const float backU = sample(backward, toX, toY, 0), backV = sample(backward, toX, toY, 1);
  const float apart = (u + backU) * (u + backU) + (v + backV) * (v + backV);
  return apart <= kShare * (u * u + v * v + backU * backU + backV * backV) + kSlack;
}

}  // namespace

std::vector<std::uint8_t> NFlow::consistency(const CTensor<float>& forward, const CTensor<float>& backward) {
  const auto size = [](const CTensor<float>& flow) {
    return std::to_string(flow.sizeX()) + " x " + std::to_string(flow.sizeY()) + " x " +
           std::to_string(flow.sizeZ());
  };
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
