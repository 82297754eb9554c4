#include <tarvo/NFilter.h>
#include <tarvo/NMath.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "core/row_lines.h"

namespace {

/// Coefficients of the recursion, computed in double precision from the decay in single precision, and
/// stored in single precision.
struct Recursion {
  float k;       ///< gain
  float c1, c2;  ///< weight of the neighbouring sample in the causal and in the anticausal pass
  float b1, e2;  ///< feedback of the last and of the last but one output

  explicit Recursion(float sigma) {
    const auto a = static_cast<float>(2.5 / (sigma * std::sqrt(static_cast<double>(NMath::Pi))));
    const auto e = static_cast<float>(std::exp(-static_cast<double>(a)));
    e2 = e * e;
    k = static_cast<float>((1.0 - e) * (1.0 - e) / (1.0 + 2.0 * a * e - e2));
    c1 = static_cast<float>((a - 1.0) * e);
    c2 = static_cast<float>((a + 1.0) * e);
    b1 = static_cast<float>(2.0 * e);
  }

  /// False where sigma is too small or too large for the formulas.
  bool finite() const { return std::isfinite(k); }
};

/// Intermediate samples of the lines being filtered: the whole causal pass, and the last three samples of
/// the anticausal pass.
struct Scratch {
  std::vector<float> causal;
  std::vector<float> anticausal;

  Scratch(int length, int lines)
      : causal(static_cast<std::size_t>(length) * lines), anticausal(3 * static_cast<std::size_t>(lines)) {}
};

/// Causal pass over `lines` lines of `length` >= 2 samples side by side:
/// y[n] = k (x[n] + c1 x[n-1]) + b1 y[n-1] - e2 y[n-2], started with y[0] = x[0] / 2.
void causalPass(const float* x, std::ptrdiff_t stride, int length, int lines, const Recursion& f, float* y) {
  const float k = f.k, c1 = f.c1, b1 = f.b1, e2 = f.e2;
  for (int j = 0; j < lines; j++) {
    y[j] = x[j] / 2;
    y[lines + j] = k * (x[stride + j] + c1 * x[j]) + (b1 - e2) * x[j] / 2;
  }
  for (int n = 2; n < length; n++) {
    const float* x0 = x + n * stride;
    const float* x1 = x0 - stride;
    float* y0 = y + static_cast<std::ptrdiff_t>(n) * lines;
    const float* y1 = y0 - lines;
    const float* y2 = y1 - lines;
#pragma omp simd
    for (int j = 0; j < lines; j++) y0[j] = k * (x0[j] + c1 * x1[j]) + b1 * y1[j] - e2 * y2[j];
  }
}

/// Anticausal pass over the same lines:
/// z[n] = k (c2 x[n+1] - e2 x[n+2]) + b1 z[n+1] - e2 z[n+2], started with z[last] = x[last] / 2.
/// A sample is replaced by y + z once the recursion has passed it; z is a ring of three samples per line.
void anticausalPass(float* x, std::ptrdiff_t stride, int length, int lines, const Recursion& f,
                    const float* y, float* z) {
  const float k = f.k, c2 = f.c2, b1 = f.b1, e2 = f.e2;
  const int last = length - 1;
  const auto ring = [=](int n) { return z + n % 3 * static_cast<std::ptrdiff_t>(lines); };
  const auto causal = [=](int n) { return y + n * static_cast<std::ptrdiff_t>(lines); };
  for (int j = 0; j < lines; j++) {
    const float end = x[last * stride + j];
    ring(last)[j] = end / 2;
    ring(last - 1)[j] = k * (c2 - e2) * end + (b1 - e2) * end / 2;
  }
  for (int n = last - 2; n >= 0; n--) {
    const float* x1 = x + (n + 1) * stride;
    float* x2 = x + (n + 2) * stride;
    float* z0 = ring(n);
    const float* z1 = ring(n + 1);
    const float* z2 = ring(n + 2);
    const float* y2 = causal(n + 2);
#pragma omp simd
    for (int j = 0; j < lines; j++) {
      z0[j] = k * (c2 * x1[j] - e2 * x2[j]) + b1 * z1[j] - e2 * z2[j];
      x2[j] = y2[j] + z2[j];
    }
  }
  for (int n = 0; n < 2; n++) {
    for (int j = 0; j < lines; j++) x[n * stride + j] = causal(n)[j] + ring(n)[j];
  }
}

void smoothLines(float* x, std::ptrdiff_t stride, int length, int lines, const Recursion& f,
                 Scratch& scratch) {
  causalPass(x, stride, length, lines, f, scratch.causal.data());
  anticausalPass(x, stride, length, lines, f, scratch.causal.data(), scratch.anticausal.data());
}

/// Smooths `count` rows of `length` samples.
void smoothRows(float* rows, int length, int count, float sigma) {
  const Recursion recursion(sigma);
  if (!(sigma > 0) || !recursion.finite() || length < 2) return;
  Scratch scratch(length, kRowBundle);
  std::vector<float> lines(static_cast<std::size_t>(length) * kRowBundle);
  for (int y = 0; y < count; y += kRowBundle) {
    const int bundle = std::min(kRowBundle, count - y);
    float* first = rows + static_cast<std::ptrdiff_t>(y) * length;
    gatherRows(first, length, bundle, lines.data());
    smoothLines(lines.data(), bundle, length, bundle, recursion, scratch);
    scatterRows(lines.data(), length, bundle, first);
  }
}

/// Smooths the columns of `count` planes of sizeX x sizeY samples.
void smoothColumns(float* planes, int sizeX, int sizeY, int count, float sigma) {
  const Recursion recursion(sigma);
  if (!(sigma > 0) || !recursion.finite() || sizeY < 2) return;
  Scratch scratch(sizeY, kColumnStrip);
  for (int z = 0; z < count; z++) {
    float* plane = planes + static_cast<std::ptrdiff_t>(z) * sizeX * sizeY;
    for (int x = 0; x < sizeX; x += kColumnStrip) {
      smoothLines(plane + x, sizeX, sizeY, std::min(kColumnStrip, sizeX - x), recursion, scratch);
    }
  }
}

}  // namespace

namespace NFilter {

template <typename T>
void recursiveSmoothX(CMatrix<T>& image, float sigma) {
  smoothRows(image.data(), image.sizeX(), image.sizeY(), sigma);
}

template <typename T>
void recursiveSmoothX(CTensor<T>& image, float sigma) {
  smoothRows(image.data(), image.sizeX(), image.sizeY() * image.sizeZ(), sigma);
}

template <typename T>
void recursiveSmoothY(CMatrix<T>& image, float sigma) {
  smoothColumns(image.data(), image.sizeX(), image.sizeY(), 1, sigma);
}

template <typename T>
void recursiveSmoothY(CTensor<T>& image, float sigma) {
  smoothColumns(image.data(), image.sizeX(), image.sizeY(), image.sizeZ(), sigma);
}

template void recursiveSmoothX<float>(CMatrix<float>&, float);
template void recursiveSmoothX<float>(CTensor<float>&, float);
template void recursiveSmoothY<float>(CMatrix<float>&, float);
template void recursiveSmoothY<float>(CTensor<float>&, float);

}  // namespace NFilter
