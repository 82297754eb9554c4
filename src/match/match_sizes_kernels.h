#pragma once

#include "device/kernel.h"

namespace kernels {

/// One pixel of the field that match::mergeShrunk makes.
struct MergeShrunk {
  float *outU, *outV, *outWeight;
  const float *u, *v, *weight;
  const float *smallU, *smallV, *smallWeight;
  int smallH, smallW, smallP;
  int scale;  // of the small pictures
  int h, w, p;
  static constexpr int kNear = 4;        // [pixels], in each direction
  static constexpr float kAlike = 4.0f;  // [pixels]

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const long i = static_cast<long>(y) * p + x;
    outU[i] = u[i];
    outV[i] = v[i];
    if (weight[i] > 0.0f) {
      outWeight[i] = contradicted(x, y, u[i], v[i]) ? 0.0f : weight[i];
      return;
    }
    outWeight[i] = 0.0f;
    const int smallX = x / scale, smallY = y / scale;
    if (x % scale != 0 || y % scale != 0 || smallX >= smallW || smallY >= smallH) return;
    const long k = static_cast<long>(smallY) * smallP + smallX;
    if (!(smallWeight[k] > 0.0f) || hasNear(x, y)) return;
    outU[i] = static_cast<float>(scale) * smallU[k];
    outV[i] = static_cast<float>(scale) * smallV[k];
    outWeight[i] = smallWeight[k];
  }

  /// Whether a match of the small pictures near (x, y) moves another way.
  TARVO_HOST_DEVICE bool contradicted(int x, int y, float ownU, float ownV) const {
    for (int row = first(y); row * scale <= y + kNear && row < smallH; ++row) {
      for (int column = first(x); column * scale <= x + kNear && column < smallW; ++column) {
        const long k = static_cast<long>(row) * smallP + column;
        const float du = static_cast<float>(scale) * smallU[k] - ownU;
        const float dv = static_cast<float>(scale) * smallV[k] - ownV;
        if (smallWeight[k] > 0.0f && du * du + dv * dv > kAlike * kAlike) return true;
      }
    }
    return false;
  }
  /// First coordinate in the small pictures that lies at least at coordinate - kNear.
  TARVO_HOST_DEVICE int first(int coordinate) const {
    const int least = coordinate - kNear;
    return least <= 0 ? 0 : (least + scale - 1) / scale;
  }
  TARVO_HOST_DEVICE bool hasNear(int x, int y) const {
    for (int row = y < kNear ? 0 : y - kNear; row <= y + kNear && row < h; ++row) {
      for (int column = x < kNear ? 0 : x - kNear; column <= x + kNear && column < w; ++column) {
        if (weight[static_cast<long>(row) * p + column] > 0.0f) return true;
      }
    }
    return false;
  }
};

}  // namespace kernels
