#pragma once

#include <tarvo/export.h>

// Element-wise kernels over device planes and small diagnostics.
//
// Kernels: each touches element i = y * p + x of every argument for x < w, y < h; padding columns keep their
// values. Pass h * planes as h to cover a stack. The launch is not checked ("No check" in these headers): an
// error shows at the next check.

/// a[i] = a[i] * s.
TARVO_API void Scale_kernel(float* a, int h, int w, int p, float s);
/// The same as Scale_kernel.
TARVO_API void Scale1_kernel(float* a, int h, int w, int p, float s);
/// a[i] = s.
TARVO_API void setValue_kernel(float* a, int h, int w, int p, float s);
/// a[i] = lo where a[i] < lo, then hi where a[i] > hi; a not-a-number stays.
TARVO_API void Bound_kernel(float* a, float lo, float hi, int h, int w, int p);
/// a[i] = b[i] + a[i].
TARVO_API void Add_kernel(float* a, const float* b, int h, int w, int p);
/// The same as Add_kernel.
TARVO_API void Add1_kernel(float* a, const float* b, int h, int w, int p);
/// out[i] = a[i] - b[i].
TARVO_API void Diff_kernel(float* out, const float* a, const float* b, int h, int w, int p);
/// out[i] = a[i] * b[i].
TARVO_API void Mult_kernel(float* out, const float* a, const float* b, int h, int w, int p);
/// a[i] = 1 / sqrt(a[i] + 0.000001), in double precision, rounded to float.
TARVO_API void normalize_kernel(float* a, int h, int w, int p);
/// a[i] = sqrt(a[i] + 0.000001), in double precision, rounded to float.
TARVO_API void Psi_kernel(float* a, int h, int w, int p);
/// a[i] = a[i] * s + b[i], rounded once.
TARVO_API void Scale_and_Add_kernel(float* a, const float* b, float s, int h, int w, int p);
/// x[i] = x[i] + alpha * q1[i], then r[i] = r[i] + beta * q2[i], each rounded once.
TARVO_API void mySaxpy2_kernel(float* x, const float* q1, float alpha, float* r, const float* q2, float beta,
                               int h, int w, int p);

/// Prints "max=%f min=%f mean=%f rms=%f \n" of a device plane; single-precision sums, row by row.
TARVO_API void print_stats(const float* a, int h, int w, int p);
/// Single-precision sum of a device plane's h * w values, row by row, left to right.
TARVO_API float findSum(const float* a, int h, int w, int p);
/// sqrt(sum of squares / n) of n consecutive device floats, in single precision.
TARVO_API float reduce_rms(const float* a, int n);
/// Prints columns x0 ... x1 - 1 of rows y0 ... y1 - 1 of a host array of pitch p, between lines "[" and "]".
TARVO_API void print_slice(const float* a, int x0, int x1, int y0, int y1, int p);
