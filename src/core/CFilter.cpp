#include <tarvo/CFilter.h>
#include <tarvo/NMath.h>
#include <tarvo/exceptions.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

/// Whether sigma and its square are greater than 0 in single precision, so that sigma can be divided by.
bool smooths(float sigma) {
  return sigma > 0 && sigma * sigma > 0;
}

/// Radius of a Gaussian mask [samples]; 0 without smoothing, or where it would be negative or not a number.
/// @throws std::length_error  2 * radius + 1 does not fit an int
int gaussianRadius(float sigma, float precision) {
  const float radius = std::ceil(precision * sigma);
  if (!smooths(sigma) || !(radius > 0)) return 0;
  if (radius >= static_cast<float>(INT_MAX / 2)) {
    throw std::length_error("CSmooth: radius too large: " + std::to_string(radius));
  }
  return static_cast<int>(radius);
}

}  // namespace

template <typename T>
CFilter<T>::CFilter(int size, int centre) : CVector<T>(size), centre_(centre) {
  if (centre < 0 || centre >= std::max(size, 1)) {
    throw std::invalid_argument("CFilter: centre " + std::to_string(centre) + " outside a mask of " +
                                std::to_string(size) + " entries");
  }
}

template <typename T>
CFilter<T>::CFilter(CFilter&& other) noexcept
    : CVector<T>(std::move(other)), centre_(std::exchange(other.centre_, 0)) {}

template <typename T>
CFilter<T>::~CFilter() = default;

template <typename T>
CFilter<T>& CFilter<T>::operator=(CFilter&& other) noexcept {
  if (this == &other) return *this;
  centre_ = std::exchange(other.centre_, 0);
  CVector<T>::operator=(std::move(other));
  return *this;
}

template <typename T>
CSmooth<T>::CSmooth(float sigma, float precision)
    : CFilter<T>(2 * gaussianRadius(sigma, precision) + 1, gaussianRadius(sigma, precision)) {
  T* mask = this->data();
  const int radius = this->centre();
  if (!smooths(sigma)) {
    mask[0] = 1;
    return;
  }
  const double doubledVariance = 2.0 * static_cast<double>(sigma * sigma);
  const double height = sigma * std::sqrt(2.0 * NMath::Pi);
  for (int i = 0; i <= radius; i++) {
    const double distance = i;
    const T value = static_cast<T>(std::exp(-(distance * distance) / doubledVariance) / height);
    mask[radius + i] = value;
    mask[radius - i] = value;
  }
  T sum = 0;
  for (int i = 0; i < this->size(); i++) sum += std::abs(mask[i]);
  const T scale = 1 / sum;
  for (int i = 0; i < this->size(); i++) mask[i] *= scale;
}

template <typename T>
CDerivative<T>::CDerivative(int size)
    : CFilter<T>(size == 3 || size == 5 ? size : throw EFilterNotAvailable(), size / 2) {
  T* mask = this->data();
  if (size == 3) {
    mask[0] = T(-0.5);
    mask[1] = 0;
    mask[2] = T(0.5);
  } else {
    mask[0] = T(1) / 12;
    mask[1] = T(-8) / 12;
    mask[2] = 0;
    mask[3] = T(8) / 12;
    mask[4] = T(-1) / 12;
  }
}

template class CFilter<float>;
template class CSmooth<float>;
template class CDerivative<float>;
