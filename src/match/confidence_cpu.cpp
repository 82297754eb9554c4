#include <tarvo/CFilter.h>
#include <tarvo/NFilter.h>
#include <tarvo/hog.h>

#include <cmath>
#include <cstddef>
#include <utility>

namespace {

constexpr float kTensorSigma = 4.0f;  // pixels

/// Central differences of all channels, borders mirrored.
struct Derivatives {
  CTensor<float> dx, dy;

  explicit Derivatives(const CTensor<float>& image)
      : dx(image.sizeX(), image.sizeY(), image.sizeZ()), dy(image.sizeX(), image.sizeY(), image.sizeZ()) {
    const CDerivative<float> mask(3);
    NFilter::filter(image, dx, mask, 1, 1);
    NFilter::filter(image, dy, 1, mask, 1);
  }
};

void smooth(CMatrix<float>& plane) {
  NFilter::recursiveSmoothX(plane, kTensorSigma);
  NFilter::recursiveSmoothY(plane, kTensorSigma);
}

}  // namespace

void computeConfidence(const CTensor<float>& image, const CTensor<float>&, CMatrix<float>& confidence) {
  const int w = image.sizeX(), h = image.sizeY();
  const int n = w * h;
  const Derivatives d(image);
  CMatrix<float> a(w, h, 0.0f), b(w, h, 0.0f), c(w, h, 0.0f), magnitude(w, h);
  float *const xx = a.data(), *const yy = b.data(), *const xy = c.data();
  for (int channel = 0; channel < image.sizeZ(); ++channel) {
    const float* const gx = d.dx.data() + static_cast<std::ptrdiff_t>(channel) * n;
    const float* const gy = d.dy.data() + static_cast<std::ptrdiff_t>(channel) * n;
    for (int i = 0; i < n; ++i) xx[i] += gx[i] * gx[i];
    for (int i = 0; i < n; ++i) yy[i] += gy[i] * gy[i];
    for (int i = 0; i < n; ++i) xy[i] += gx[i] * gy[i];
  }
  for (int i = 0; i < n; ++i) magnitude.data()[i] = std::sqrt(xx[i] + yy[i]);
  smooth(a);
  smooth(b);
  smooth(c);
  CMatrix<float> result(w, h);
  for (int i = 0; i < n; ++i) {
    const float t = (xx[i] + yy[i]) * 0.5f;
    const float q = t * t + xy[i] * xy[i] - yy[i] * xx[i];
    const double root = std::sqrt(static_cast<double>(q < 0.0f ? 0.0f : q));
    result.data()[i] =
        static_cast<float>((static_cast<double>(t) - root) * static_cast<double>(magnitude.data()[i]));
  }
  confidence = std::move(result);
}

float edgeStrength(const CTensor<float>& image) {
  const int n = image.sizeX() * image.sizeY();
  if (n == 0) return 0.0f;
  const Derivatives d(image);
  float largest = 0.0f, sum = 0.0f;
  for (int i = 0; i < n; ++i) {
    float square = 0.0f;
    for (int channel = 0; channel < image.sizeZ(); ++channel) {
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(channel) * n + i;
      square += d.dx.data()[at] * d.dx.data()[at] + d.dy.data()[at] * d.dy.data()[at];
    }
    const float magnitude = std::sqrt(square);
    if (magnitude > largest) largest = magnitude;
    sum += magnitude;
  }
  const float mean = sum / static_cast<float>(n);
  const auto strength = static_cast<float>((0.7 * largest + 0.3 * mean) / 100.0);
  return strength * strength;
}
