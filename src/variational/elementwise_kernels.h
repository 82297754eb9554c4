#pragma once

#include <cmath>

#include "device/kernel.h"

namespace kernels {

/// Added under every root of a robust weight: keeps it finite at zero.
constexpr double kRootOffset = 0.000001;

/// 1 / sqrt(s + 0.000001), root and division in double precision, rounded to float.
TARVO_HOST_DEVICE float inverseRoot(float s) {
  return static_cast<float>(1.0 / std::sqrt(static_cast<double>(s) + kRootOffset));
}

/// max(0, t)^16. With t = 1 - x / 16 it stands in for exp(-x), with the same bits on every device.
TARVO_HOST_DEVICE float power16(float t) {
  const float t1 = t > 0.0f ? t : 0.0f;
  const float t2 = t1 * t1;
  const float t4 = t2 * t2;
  const float t8 = t4 * t4;
  return t8 * t8;
}

struct Scale_kernel {
  float* a;
  int h, w, p;
  float s;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { a[y * p + x] *= s; }
};

struct setValue_kernel {
  float* a;
  int h, w, p;
  float s;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { a[y * p + x] = s; }
};

struct Bound_kernel {
  float* a;
  float lo, hi;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float raised = a[i] < lo ? lo : a[i];
    a[i] = raised > hi ? hi : raised;
  }
};

struct Add_kernel {
  float* a;
  const float* b;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { a[y * p + x] = b[y * p + x] + a[y * p + x]; }
};

struct Diff_kernel {
  float* out;
  const float *a, *b;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { out[y * p + x] = a[y * p + x] - b[y * p + x]; }
};

struct Mult_kernel {
  float* out;
  const float *a, *b;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { out[y * p + x] = a[y * p + x] * b[y * p + x]; }
};

struct normalize_kernel {
  float* a;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const { a[y * p + x] = inverseRoot(a[y * p + x]); }
};

struct Psi_kernel {
  float* a;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    a[y * p + x] = static_cast<float>(std::sqrt(static_cast<double>(a[y * p + x]) + kRootOffset));
  }
};

struct Scale_and_Add_kernel {
  float* a;
  const float* b;
  float s;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    a[y * p + x] = fmaf(a[y * p + x], s, b[y * p + x]);
  }
};

struct mySaxpy2_kernel {
  float* x;
  const float* q1;
  float alpha;
  float* r;
  const float* q2;
  float beta;
  int h, w, p;
  TARVO_HOST_DEVICE void operator()(int column, int row) const {
    const int i = row * p + column;
    x[i] = fmaf(alpha, q1[i], x[i]);
    r[i] = fmaf(beta, q2[i], r[i]);
  }
};

}  // namespace kernels
