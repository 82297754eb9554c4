#pragma once

#include <tarvo/solvers.h>

#include <cmath>
#include <vector>

#include "support/planes.h"

/// Plain twin of the solver, one step after the other, on dense planes.
namespace reference {

inline Planes product(const Planes& A, const Planes& x) {
  Planes out(x.h, x.w, 2);
  for (int row = 0; row < x.h; ++row) {
    for (int column = 0; column < x.w; ++column) {
      const float d1 = x.at(column, row, 0), d2 = x.at(column, row, 1);
      const float uv = A.at(column, row, kMatrixUV);
      float out1 = std::fmaf(d1, A.at(column, row, kMatrixUU), d2 * uv);
      float out2 = std::fmaf(d1, uv, d2 * A.at(column, row, kMatrixVV));
      const auto add = [&](int plane, int nx, int ny) {
        if (nx < 0 || ny < 0 || nx >= x.w || ny >= x.h) return;
        const float c = A.at(column, row, plane);
        out1 = std::fmaf(c, x.at(nx, ny, 0), out1);
        out2 = std::fmaf(c, x.at(nx, ny, 1), out2);
      };
      add(kMatrixNorth, column, row - 1);
      add(kMatrixWest, column - 1, row);
      add(kMatrixEast, column + 1, row);
      add(kMatrixSouth, column, row + 1);
      out.at(column, row, 0) = out1;
      out.at(column, row, 1) = out2;
    }
  }
  return out;
}

inline Planes residual(const Planes& A, const Planes& rhs, const Planes& x) {
  Planes out(x.h, x.w, 2);
  for (int row = 0; row < x.h; ++row) {
    for (int column = 0; column < x.w; ++column) {
      const float du = x.at(column, row, 0), dv = x.at(column, row, 1);
      const float t1 = std::fmaf(du, A.at(column, row, kMatrixUU), dv * A.at(column, row, kMatrixUV));
      const float t2 = std::fmaf(du, A.at(column, row, kMatrixVU), dv * A.at(column, row, kMatrixVV));
      float r1 = rhs.at(column, row, 0) - t1;
      float r2 = rhs.at(column, row, 1) - t2;
      const auto subtract = [&](int plane, int nx, int ny) {
        if (nx < 0 || ny < 0 || nx >= x.w || ny >= x.h) return;
        const float c = A.at(column, row, plane);
        r1 = r1 - c * x.at(nx, ny, 0);
        r2 = r2 - c * x.at(nx, ny, 1);
      };
      subtract(kMatrixNorth, column, row - 1);
      subtract(kMatrixWest, column - 1, row);
      subtract(kMatrixEast, column + 1, row);
      subtract(kMatrixSouth, column, row + 1);
      out.at(column, row, 0) = r1;
      out.at(column, row, 1) = r2;
    }
  }
  return out;
}

inline Planes precondition(const Planes& A, const Planes& r) {
  Planes z(r.h, r.w, 2);
  forPixels(r.h, r.w, [&](int x, int y) {
    const float a0 = A.at(x, y, kMatrixUU), a1 = A.at(x, y, kMatrixVU), a3 = A.at(x, y, kMatrixVV);
    const float r1 = r.at(x, y, 0), r2 = r.at(x, y, 1);
    const float det = a0 * a3 - a1 * a1;
    const bool regular = std::fabs(static_cast<double>(det)) > 0.0001;
    z.at(x, y, 0) = regular ? (a3 * r1 - a1 * r2) / det : r1;
    z.at(x, y, 1) = regular ? (a0 * r2 - a1 * r1) / det : r2;
  });
  return z;
}

/// Halves a row of sums until one is left.
inline float foldHalves(std::vector<float> sums) {
  for (std::size_t half = sums.size() / 2; half > 0; half /= 2) {
    for (std::size_t j = 0; j < half; ++j) sums[j] = sums[j] + sums[j + half];
  }
  return sums[0];
}

/// The fixed shape: segments of 256 columns summed by 32 lanes, the segments' sums by 1024 lanes.
inline float dot(const Planes& a, const Planes& b) {
  std::vector<float> segments;
  for (int y = 0; y < a.h; ++y) {
    for (int start = 0; start < a.w; start += 256) {
      std::vector<float> lanes(32, 0.0f);
      for (int x = start; x < a.w && x < start + 256; ++x) {
        float& lane = lanes[static_cast<std::size_t>((x - start) % 32)];
        lane = std::fmaf(a.at(x, y, 0), b.at(x, y, 0), lane);
        lane = std::fmaf(a.at(x, y, 1), b.at(x, y, 1), lane);
      }
      segments.push_back(foldHalves(lanes));
    }
  }
  std::vector<float> lanes(1024, 0.0f);
  for (std::size_t i = 0; i < segments.size(); ++i) lanes[i % 1024] = lanes[i % 1024] + segments[i];
  return foldHalves(lanes);
}

/// x improved by at most `iterations` steps.
inline Planes solve(const Planes& A, const Planes& rhs, Planes x, int iterations) {
  Planes r = residual(A, rhs, x);
  Planes z = precondition(A, r);
  Planes search = z;
  for (int k = 0; k < iterations; ++k) {
    const Planes q = product(A, search);
    const float rz = dot(r, z);
    if (std::fabs(static_cast<double>(rz)) < 0.00001) break;
    const float alpha = rz / dot(search, q);
    for (std::size_t i = 0; i < x.values.size(); ++i) {
      x.values[i] = std::fmaf(alpha, search.values[i], x.values[i]);
      r.values[i] = std::fmaf(-alpha, q.values[i], r.values[i]);
    }
    z = precondition(A, r);
    const float beta = dot(r, z) / rz;
    for (std::size_t i = 0; i < x.values.size(); ++i) {
      search.values[i] = std::fmaf(search.values[i], beta, z.values[i]);
    }
  }
  return x;
}

/// `sweeps` red-black relaxations from `x`.
inline Planes relax(const Planes& A, const Planes& rhs, Planes x, float omega, int sweeps) {
  const auto value = [](const Planes& planes, int column, int row, int k) {
    const bool inside = column >= 0 && row >= 0 && column < planes.w && row < planes.h;
    return inside ? planes.at(column, row, k) : 0.0f;
  };
  for (int half = 0; half < 2 * sweeps; ++half) {
    const Planes old = x;
    forPixels(x.h, x.w, [&](int column, int row) {
      if ((column + row) % 2 != half % 2) return;
      float r[2];
      for (int k = 0; k < 2; ++k) {
        r[k] = rhs.at(column, row, k);
        if (row > 0) r[k] -= A.at(column, row, kMatrixNorth) * value(old, column, row - 1, k);
        if (column > 0) r[k] -= A.at(column, row, kMatrixWest) * value(old, column - 1, row, k);
        if (column < x.w - 1) r[k] -= A.at(column, row, kMatrixEast) * value(old, column + 1, row, k);
        if (row < x.h - 1) r[k] -= A.at(column, row, kMatrixSouth) * value(old, column, row + 1, k);
      }
      const float a = A.at(column, row, kMatrixUU), b = A.at(column, row, kMatrixUV),
                  c = A.at(column, row, kMatrixVV);
      const float det = a * c - b * b;
      const bool regular = std::fabs(static_cast<double>(det)) > 0.0001;
      const float solution[] = {regular ? (c * r[0] - b * r[1]) / det : 0.0f,
                                regular ? (a * r[1] - b * r[0]) / det : 0.0f};
      for (int k = 0; k < 2; ++k) {
        x.at(column, row, k) = std::fmaf(solution[k], omega, (1.0f - omega) * old.at(column, row, k));
      }
    });
  }
  return x;
}

}  // namespace reference
