#pragma once

#include <tarvo/solvers.h>

#include <cmath>
#include <cstddef>

#include "reference/tensor_reference.h"

/// Plain twins of the robust weights and of the assembly of the linear system.
namespace reference {

/// numerator / sqrt(E + 0.000001) of a tensor at (x, y), E = 2 T + S in double precision, rounded; a negative
/// E counts as 0.
inline float tensorFactor(float numerator, const Planes& J, float du, float dv, int x, int y) {
  const float S = J.at(x, y, 0) * du * du + J.at(x, y, 1) * dv * dv + J.at(x, y, 2);
  const float T = dv * J.at(x, y, 5) + (du * dv * J.at(x, y, 3) + du * J.at(x, y, 4));
  const float E = static_cast<float>(2.0 * static_cast<double>(T) + static_cast<double>(S));
  return inverseRoot(numerator, E < 0.0f ? 0.0f : E);
}

struct Factors {
  Planes data, grad, matchWeight, matchRhsU, matchRhsV;
};

/// match: planes u, v, weight.
inline Factors factors(const Tensors& tensors, const Planes& u, const Planes& v, const Planes& du,
                       const Planes& dv, const Planes& match, float beta, float gamma) {
  const int h = u.h, w = u.w;
  Factors f{Planes(h, w), Planes(h, w), Planes(h, w), Planes(h, w), Planes(h, w)};
  forPixels(h, w, [&](int x, int y) {
    const float a = du.at(x, y), b = dv.at(x, y);
    f.data.at(x, y) = tensorFactor(1.0f, tensors.data, a, b, x, y);
    f.grad.at(x, y) = tensorFactor(gamma, tensors.grad, a, b, x, y);
    const float c = match.at(x, y, 2);
    if (!(c > 0.0f)) return;
    const float apartU = u.at(x, y) + a - match.at(x, y, 0);
    const float apartV = v.at(x, y) + b - match.at(x, y, 1);
    const float m = inverseRoot(c * beta, apartU * apartU + apartV * apartV);
    f.matchWeight.at(x, y) = m;
    f.matchRhsU.at(x, y) = (u.at(x, y) - match.at(x, y, 0)) * m;
    f.matchRhsV.at(x, y) = (v.at(x, y) - match.at(x, y, 1)) * m;
  });
  return f;
}

struct System {
  Planes matrix, rhs;
};

/// The planes of the matrix that nothing may touch hold `untouched`.
inline System assemble(const Tensors& t, const Factors& f, const Planes& u, const Planes& v,
                       const Diffusivities& diff, float alpha, float untouched) {
  const int h = u.h, w = u.w;
  System s{Planes(h, w, 12, untouched), Planes(h, w, 2)};
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const float fd = f.data.at(x, y), fg = f.grad.at(x, y), m = f.matchWeight.at(x, y);
      float auu = m + (fd * t.data.at(x, y, 0) + fg * t.grad.at(x, y, 0));
      float avv = m + (fd * t.data.at(x, y, 1) + fg * t.grad.at(x, y, 1));
      const float auv = fd * t.data.at(x, y, 3) + fg * t.grad.at(x, y, 3);
      float bu = (-fd * t.data.at(x, y, 4) - fg * t.grad.at(x, y, 4)) - f.matchRhsU.at(x, y);
      float bv = (-fd * t.data.at(x, y, 5) - fg * t.grad.at(x, y, 5)) - f.matchRhsV.at(x, y);
      const auto couple = [&](bool exists, int plane, float diffusivity, int nx, int ny) {
        s.matrix.at(x, y, plane) = 0.0f;
        if (!exists) return;
        const float c = diffusivity * alpha;
        bu = bu + c * (u.at(nx, ny) - u.at(x, y));
        bv = bv + c * (v.at(nx, ny) - v.at(x, y));
        auu = auu + c;
        avv = avv + c;
        s.matrix.at(x, y, plane) = -c;
      };
      couple(y >= 1, kMatrixNorth, y >= 1 ? diff.y.at(x, y - 1) : 0.0f, x, y - 1);
      couple(x >= 1, kMatrixWest, x >= 1 ? diff.x.at(x - 1, y) : 0.0f, x - 1, y);
      couple(x < w - 1, kMatrixEast, diff.x.at(x, y), x + 1, y);
      couple(y < h - 1, kMatrixSouth, diff.y.at(x, y), x, y + 1);
      s.matrix.at(x, y, kMatrixUU) = auu;
      s.matrix.at(x, y, kMatrixVU) = auv;
      s.matrix.at(x, y, kMatrixUV) = auv;
      s.matrix.at(x, y, kMatrixVV) = avv;
      s.rhs.at(x, y, 0) = bu;
      s.rhs.at(x, y, 1) = bv;
    }
  }
  return s;
}

}  // namespace reference
