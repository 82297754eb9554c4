#pragma once

#include <tarvo/solvers.h>

#include "variational/elementwise_kernels.h"
#include "variational/solver/solver_kernels.h"

namespace kernels {

/// E = d^T J d of a six-plane tensor at element i, d = (du, dv, 1): S and T in float, 2 T + S rounded once
/// (as it is when formed in double precision and then rounded: that has more than twice the digits), negative
/// values counted as 0; then E + 0.000001.
TARVO_HOST_DEVICE double tensorEnergy(const float* tensor, int i, int n, float du, float dv) {
  const float s = tensor[i] * du * du + tensor[i + n] * dv * dv + tensor[i + 2 * n];
  const float t = dv * tensor[i + 5 * n] + (du * dv * tensor[i + 3 * n] + du * tensor[i + 4 * n]);
  const float e = fmaf(2.0f, t, s);
  return e < 0.0f ? kRootOffset : static_cast<double>(e) + kRootOffset;
}

/// weight / sqrt(E + 0.000001) of a tensor's energy.
TARVO_HOST_DEVICE float tensorWeight(const float* tensor, int i, int n, float du, float dv, float weight) {
  return static_cast<float>(static_cast<double>(weight) / std::sqrt(tensorEnergy(tensor, i, n, du, dv)));
}

struct DataFactor_kernel {
  const float *stData, *du, *dv;
  float* dataFactor;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    dataFactor[i] = tensorWeight(stData, i, h * p, du[i], dv[i], 1.0f);
  }
};

struct GradientFactor_kernel {
  const float *stGrad, *du, *dv;
  float* gradFactor;
  int h, w, p;
  float gamma;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    gradFactor[i] = tensorWeight(stGrad, i, h * p, du[i], dv[i], gamma);
  }
};

/// Sums over the match candidates of a pixel.
struct MatchSums {
  float weight, rhsU, rhsV;

  /// Adds candidate (mu, mv) of weight c for the flow (u, v) with increment (du, dv); nothing unless c > 0.
  template <bool kSingle = false>
  TARVO_HOST_DEVICE void add(float u, float v, float du, float dv, float mu, float mv, float c, float beta) {
    const float apartU = u + du - mu;
    const float apartV = v + dv - mv;
    const float q = apartU * apartU + apartV * apartV;
    const float m = kSingle ? c * beta / std::sqrt(q + static_cast<float>(kRootOffset))
                            : static_cast<float>(static_cast<double>(c * beta) /
                                                 std::sqrt(static_cast<double>(q) + kRootOffset));
    const bool counts = c > 0.0f;  // false for not-a-number too
    weight = counts ? weight + m : weight;
    rhsU = counts ? rhsU + (u - mu) * m : rhsU;
    rhsV = counts ? rhsV + (v - mv) * m : rhsV;
  }
};

struct MatchFactor_kernel {
  const float *u, *v, *du, *dv, *matchU, *matchV, *matchWeightIn;
  float *matchWeight, *matchRhsU, *matchRhsV;
  int candidates, h, w, p;
  float beta;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    MatchSums sums{0.0f, 0.0f, 0.0f};
    for (int k = 0; k < candidates; ++k) {
      const int j = k * h * p + i;
      sums.add(u[i], v[i], du[i], dv[i], matchU[j], matchV[j], matchWeightIn[j], beta);
    }
    matchWeight[i] = sums.weight;
    matchRhsU[i] = sums.rhsU;
    matchRhsV[i] = sums.rhsV;
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

/// The planes that assembly reads and writes at every pixel and its neighbours.
struct SystemPlanes {
  float *matrix, *rhs;
  const float *stData, *stGrad, *u, *v, *diffX, *diffY;

  /// Equations of pixel (x, y) for the weights fd, fg and the match sums; a coupling is
  /// strength(diffusivity). kOnce: in the layout SystemLayout::once, else in the full one. kInside: the pixel
  /// is known to have all four neighbours.
  template <bool kOnce, bool kInside, class Strength>
  TARVO_HOST_DEVICE void assemble(int x, int y, int h, int w, int p, float fd, float fg,
                                  const MatchSums& match, const Strength& strength) const {
    const int i = y * p + x;
    const int n = h * p;
    const float m = match.weight;
    PixelEquations pixel{m + (fd * stData[i] + fg * stGrad[i]), m + (fd * stData[i + n] + fg * stGrad[i + n]),
                         (-fd * stData[i + 4 * n] - fg * stGrad[i + 4 * n]) - match.rhsU,
                         (-fd * stData[i + 5 * n] - fg * stGrad[i + 5 * n]) - match.rhsV};
    const float auv = fd * stData[i + 3 * n] + fg * stGrad[i + 3 * n];
    float north = 0.0f, west = 0.0f, east = 0.0f, south = 0.0f;
    if (kInside || y >= 1) north = pixel.couple(strength(diffY[i - p]), u[i - p] - u[i], v[i - p] - v[i]);
    if (kInside || x >= 1) west = pixel.couple(strength(diffX[i - 1]), u[i - 1] - u[i], v[i - 1] - v[i]);
    if (kInside || x < w - 1) east = pixel.couple(strength(diffX[i]), u[i + 1] - u[i], v[i + 1] - v[i]);
    if (kInside || y < h - 1) south = pixel.couple(strength(diffY[i]), u[i + p] - u[i], v[i + p] - v[i]);
    const SystemLayout entry = kOnce ? SystemLayout::once(n, p) : SystemLayout::full(n);
    matrix[i] = pixel.auu;
    matrix[i + entry.vu] = auv;
    matrix[i + entry.vv] = pixel.avv;
    matrix[i + entry.east] = east;
    matrix[i + entry.south] = south;
    if (!kOnce) {
      matrix[i + entry.uv] = auv;
      matrix[i + entry.north] = north;
      matrix[i + entry.west] = west;
    }
    rhs[i] = pixel.bu;
    rhs[i + n] = pixel.bv;
  }
};

/// Couplings carry the factor alpha where kScaled, else the bare diffusivity.
template <bool kScaled>
struct MakeMatrix_kernels {
  SystemPlanes planes;
  const float *dataFactor, *gradFactor, *matchWeight, *matchRhsU, *matchRhsV;
  int h, w, p;
  float alpha;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float factor = alpha;
    planes.assemble<false, false>(
        x, y, h, w, p, dataFactor[i], gradFactor[i], {matchWeight[i], matchRhsU[i], matchRhsV[i]},
        [factor](float diffusivity) { return kScaled ? diffusivity * factor : diffusivity; });
  }
};
using MakeMatrix_kernel = MakeMatrix_kernels<true>;
using MakeMatrix_dummy_kernel = MakeMatrix_kernels<false>;

/// tensorWeight in single precision.
TARVO_HOST_DEVICE float singleTensorWeight(const float* tensor, int i, int n, float du, float dv,
                                           float weight) {
  const float s = tensor[i] * du * du + tensor[i + n] * dv * dv + tensor[i + 2 * n];
  const float t = dv * tensor[i + 5 * n] + (du * dv * tensor[i + 3 * n] + du * tensor[i + 4 * n]);
  const float e = fmaf(2.0f, t, s);
  return weight / std::sqrt((e < 0.0f ? 0.0f : e) + static_cast<float>(kRootOffset));
}

/// Factors and assembly in one visit, for one match candidate, or none: then the match planes are not read.
/// The matrix is that of SystemLayout::once. kSingle: robust weights in single precision.
template <bool kMatches, bool kSingle>
struct AssembleSystem {
  SystemPlanes planes;
  const float *du, *dv, *matchU, *matchV, *matchWeightIn;
  int h, w, p;
  float alpha, beta, gamma;
  static constexpr int kReach = 1;

  TARVO_HOST_DEVICE void operator()(int x, int y) const { at<false>(x, y); }
  TARVO_HOST_DEVICE void inside(int x, int y) const { at<true>(x, y); }
  template <bool kInside>
  TARVO_HOST_DEVICE void at(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float fd = kSingle ? singleTensorWeight(planes.stData, i, n, du[i], dv[i], 1.0f)
                             : tensorWeight(planes.stData, i, n, du[i], dv[i], 1.0f);
    const float fg = kSingle ? singleTensorWeight(planes.stGrad, i, n, du[i], dv[i], gamma)
                             : tensorWeight(planes.stGrad, i, n, du[i], dv[i], gamma);
    MatchSums match{0.0f, 0.0f, 0.0f};
    if (kMatches) {
      match.add<kSingle>(planes.u[i], planes.v[i], du[i], dv[i], matchU[i], matchV[i], matchWeightIn[i],
                         beta);
    }
    const float factor = alpha;
    planes.assemble<true, kInside>(x, y, h, w, p, fd, fg, match,
                                   [factor](float diffusivity) { return diffusivity * factor; });
  }
};

}  // namespace kernels
