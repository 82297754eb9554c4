#pragma once

#include <cmath>

#include "device/kernel.h"
#include "variational/solver/solver_kernels.h"

namespace kernels {

/// Entries of a symmetric 2 x 2 block.
struct Block {
  float uu, uv, vv;
};

/// omega times the inverse of a block, 0 where it is singular: each entry times (omega / det).
TARVO_HOST_DEVICE Block scaledInverse(Block b, float omega) {
  const float det = b.uu * b.vv - b.uv * b.uv;
  const bool regular = std::fabs(det) > kLeastDeterminant;  // as in blockSolve
  const float scale = omega / det;
  return {regular ? b.vv * scale : 0.0f, regular ? -(b.uv * scale) : 0.0f, regular ? b.uu * scale : 0.0f};
}

/// The residual of a pixel's two equations without its block: r = fmaf(-coupling, d, r) for the neighbours
/// north, west, east, south, from r = rhs.
struct NeighbourResidual {
  float u, v;
  TARVO_HOST_DEVICE void decouple(float c, float du, float dv) {
    u = fmaf(-c, du, u);
    v = fmaf(-c, dv, v);
  }
};

/// keep * d + inverse * r: the product with d, then fused the products with r.v, then with r.u.
TARVO_HOST_DEVICE Pair relaxed(Block inverse, NeighbourResidual r, float keep, float du, float dv) {
  return {fmaf(inverse.uu, r.u, fmaf(inverse.uv, r.v, keep * du)),
          fmaf(inverse.uv, r.u, fmaf(inverse.vv, r.v, keep * dv))};
}

/// Replaces the blocks of a matrix in SystemLayout::once by omega times their inverses.
struct InvertBlocks {
  float* matrix;
  int h, w, p;
  float omega;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const SystemLayout at = SystemLayout::once(h * p, p);
    float* entry = matrix + (y * p + x);
    const Block inverse = scaledInverse({entry[0], entry[at.uv], entry[at.vv]}, omega);
    entry[0] = inverse.uu;
    entry[at.uv] = inverse.uv;
    entry[at.vv] = inverse.vv;
  }
};

/// Relaxes in place the pixels with (x + y) mod 2 == colour, with blocks that InvertBlocks has inverted and
/// keep = 1 - omega. The launch has one column for two pixels.
struct RelaxColour {
  const float *matrix, *rhs;
  float* d;
  int h, w, p;
  float keep;
  int colour;
  int outW;  // (w + 1) / 2
  int outH;

  TARVO_HOST_DEVICE void operator()(int column, int y) const {
    const int x = 2 * column + ((y + colour) & 1);
    if (x >= w) return;
    const int n = h * p;
    const int i = y * p + x;
    const SystemLayout at = SystemLayout::once(n, p);
    const float* entry = matrix + i;
    NeighbourResidual r{rhs[i], rhs[i + n]};
    if (y >= 1) r.decouple(entry[at.north], d[i - p], d[i - p + n]);
    if (x >= 1) r.decouple(entry[at.west], d[i - 1], d[i - 1 + n]);
    if (x < w - 1) r.decouple(entry[at.east], d[i + 1], d[i + 1 + n]);
    if (y < h - 1) r.decouple(entry[at.south], d[i + p], d[i + p + n]);
    const Pair value = relaxed({entry[0], entry[at.uv], entry[at.vv]}, r, keep, d[i], d[i + n]);
    d[i] = value.first;
    d[i + n] = value.second;
  }
};

}  // namespace kernels
