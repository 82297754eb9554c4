#include <tarvo/filters.h>

#include <algorithm>
#include <cmath>
#include <memory>

float gauss(float x, float sigma) {
  return static_cast<float>((1.0 / static_cast<double>(sigma)) *
                            static_cast<double>(std::exp(-x * x / ((sigma + sigma) * sigma))));
}

float gauss_derivative(float x, float sigma) {
  return std::exp((x * -x) / ((sigma + sigma) * sigma)) * (-x);
}

namespace {

/// Three standard deviations to either side, an odd number of taps. One tap for a sigma that is not positive;
/// for one that is too large more taps than a mask may have, so that the filter rejects the mask.
int maskLength(float sigma) {
  constexpr float kTooLong = 8192.0f;
  if (!(sigma > 0.0f)) return 1;
  const int length = static_cast<int>(std::min(sigma * 6.0f, kTooLong));
  return length % 2 == 0 ? length + 1 : length;
}

/// A mask of the values tap(i - n / 2), divided by the sum of their magnitudes.
template <class Tap>
float* normalisedMask(float sigma, int& size, const Tap& tap) {
  size = maskLength(sigma);
  auto mask = std::make_unique<float[]>(static_cast<std::size_t>(size));
  const int centre = size / 2;
  float sum = 0.0f;
  for (int i = 0; i < size; ++i) {
    mask[static_cast<std::size_t>(i)] = tap(static_cast<float>(i - centre));
    sum += std::fabs(mask[static_cast<std::size_t>(i)]);
  }
  if (size > 1 || sum > 0.0f) {
    for (int i = 0; i < size; ++i) mask[static_cast<std::size_t>(i)] /= sum;
  }
  return mask.release();
}

}  // namespace

float* GaussianFilterCreate(float sigma, int& size) {
  return normalisedMask(sigma, size, [sigma](float x) { return gauss(x, sigma); });
}

float* GaussianDerivativeFilterCreate(float sigma, int& size) {
  return normalisedMask(sigma, size, [sigma](float x) { return gauss_derivative(-x, sigma); });
}
