#pragma once

#include <tarvo/solvers.h>

#include "gpu/elementwise_kernels.h"

namespace kernels {

/// E = d^T J d of a six-plane tensor at element i, d = (du, dv, 1): S and T in float, 2 T + S in double,
/// negative values counted as 0; then E + 0.000001.
TARVO_HOST_DEVICE double tensorEnergy(const float* tensor, int i, int n, float du, float dv) {
  const float s = tensor[i] * du * du + tensor[i + n] * dv * dv + tensor[i + 2 * n];
  const float t = dv * tensor[i + 5 * n] + (du * dv * tensor[i + 3 * n] + du * tensor[i + 4 * n]);
  const auto e = static_cast<float>(2.0 * static_cast<double>(t) + static_cast<double>(s));
  return e < 0.0f ? kRootOffset : static_cast<double>(e) + kRootOffset;
}

struct DataFactor_kernel {
  const float *stData, *du, *dv;
  float* dataFactor;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    dataFactor[i] = static_cast<float>(1.0 / std::sqrt(tensorEnergy(stData, i, h * p, du[i], dv[i])));
  }
};

struct GradientFactor_kernel {
  const float *stGrad, *du, *dv;
  float* gradFactor;
  int h, w, p;
  float gamma;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    gradFactor[i] = static_cast<float>(static_cast<double>(gamma) /
                                       std::sqrt(tensorEnergy(stGrad, i, h * p, du[i], dv[i])));
  }
};

struct MatchFactor_kernel {
  const float *u, *v, *du, *dv, *matchU, *matchV, *matchWeightIn;
  float *matchWeight, *matchRhsU, *matchRhsV;
  int candidates, h, w, p;
  float beta;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    float weight = 0.0f;
    float rhsU = 0.0f;
    float rhsV = 0.0f;
    for (int k = 0; k < candidates; ++k) {
      const int j = k * h * p + i;
      const float c = matchWeightIn[j];
      const float apartU = u[i] + du[i] - matchU[j];
      const float apartV = v[i] + dv[i] - matchV[j];
      const float q = apartU * apartU + apartV * apartV;
      const auto m =
          static_cast<float>(static_cast<double>(c * beta) / std::sqrt(static_cast<double>(q) + kRootOffset));
      const bool counts = c > 0.0f;  // false for not-a-number too
      weight = counts ? weight + m : weight;
      rhsU = counts ? rhsU + (u[i] - matchU[j]) * m : rhsU;
      rhsV = counts ? rhsV + (v[i] - matchV[j]) * m : rhsV;
    }
    matchWeight[i] = weight;
    matchRhsU[i] = rhsU;
    matchRhsV[i] = rhsV;
  }
};

/// Adds one neighbour's smoothness to a pixel's equations.
struct PixelEquations {
  float auu, avv, bu, bv;

  TARVO_HOST_DEVICE float couple(float c, float uApart, float vApart) {
    bu += c * uApart;
    bv += c * vApart;
    auu += c;
    avv += c;
    return -c;
  }
};

/// Couplings carry the factor alpha where kScaled, else the bare diffusivity.
template <bool kScaled>
struct MakeMatrix_kernels {
  float *matrix, *rhs;
  const float *dataFactor, *gradFactor, *matchWeight, *stData, *stGrad, *matchRhsU, *matchRhsV, *u, *v,
      *diffX, *diffY;
  int h, w, p;
  float alpha;

  TARVO_HOST_DEVICE float strength(float diffusivity) const {
    return kScaled ? diffusivity * alpha : diffusivity;
  }

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float fd = dataFactor[i], fg = gradFactor[i], m = matchWeight[i];
    PixelEquations pixel{m + (fd * stData[i] + fg * stGrad[i]), m + (fd * stData[i + n] + fg * stGrad[i + n]),
                         (-fd * stData[i + 4 * n] - fg * stGrad[i + 4 * n]) - matchRhsU[i],
                         (-fd * stData[i + 5 * n] - fg * stGrad[i + 5 * n]) - matchRhsV[i]};
    const float auv = fd * stData[i + 3 * n] + fg * stGrad[i + 3 * n];
    float north = 0.0f, west = 0.0f, east = 0.0f, south = 0.0f;
    if (y >= 1) north = pixel.couple(strength(diffY[i - p]), u[i - p] - u[i], v[i - p] - v[i]);
    if (x >= 1) west = pixel.couple(strength(diffX[i - 1]), u[i - 1] - u[i], v[i - 1] - v[i]);
    if (x < w - 1) east = pixel.couple(strength(diffX[i]), u[i + 1] - u[i], v[i + 1] - v[i]);
    if (y < h - 1) south = pixel.couple(strength(diffY[i]), u[i + p] - u[i], v[i + p] - v[i]);
    matrix[i + kMatrixUU * n] = pixel.auu;
    matrix[i + kMatrixVU * n] = auv;
    matrix[i + kMatrixUV * n] = auv;
    matrix[i + kMatrixVV * n] = pixel.avv;
    matrix[i + kMatrixNorth * n] = north;
    matrix[i + kMatrixWest * n] = west;
    matrix[i + kMatrixEast * n] = east;
    matrix[i + kMatrixSouth * n] = south;
    rhs[i] = pixel.bu;
    rhs[i + n] = pixel.bv;
  }
};
using MakeMatrix_kernel = MakeMatrix_kernels<true>;
using MakeMatrix_dummy_kernel = MakeMatrix_kernels<false>;

}  // namespace kernels
