#include <tarvo/CTensor.h>

#include <algorithm>
#include <utility>

#include "core/element_count.h"

template <typename T>
CTensor<T>::CTensor(int sizeX, int sizeY, int sizeZ)
    : sizeX_(sizeX),
      sizeY_(sizeY),
      sizeZ_(sizeZ),
      data_(new T[elementCount("CTensor", sizeX, sizeY, sizeZ)]) {}

template <typename T>
CTensor<T>::CTensor(int sizeX, int sizeY, int sizeZ, T fill) : CTensor(sizeX, sizeY, sizeZ) {
  std::fill_n(data_, size(), fill);
}

template <typename T>
CTensor<T>::CTensor(const CTensor& other) : CTensor() {
  *this = other;
}

template <typename T>
CTensor<T>::CTensor(CTensor&& other) noexcept
    : sizeX_(std::exchange(other.sizeX_, 0)),
      sizeY_(std::exchange(other.sizeY_, 0)),
      sizeZ_(std::exchange(other.sizeZ_, 0)),
      data_(std::exchange(other.data_, nullptr)) {}

template <typename T>
CTensor<T>::~CTensor() {
  delete[] data_;
}

template <typename T>
CTensor<T>& CTensor<T>::operator=(const CTensor& other) {
  if (this == &other) return *this;
  if (data_ == nullptr || other.data_ == nullptr || size() != other.size()) {
    *this = CTensor();
    if (other.data_ == nullptr) return *this;
    data_ = new T[other.size()];
  }
  sizeX_ = other.sizeX_;
  sizeY_ = other.sizeY_;
  sizeZ_ = other.sizeZ_;
  std::copy_n(other.data_, other.size(), data_);
  return *this;
}

template <typename T>
CTensor<T>& CTensor<T>::operator=(CTensor&& other) noexcept {
  if (this == &other) return *this;
  delete[] data_;
  sizeX_ = std::exchange(other.sizeX_, 0);
  sizeY_ = std::exchange(other.sizeY_, 0);
  sizeZ_ = std::exchange(other.sizeZ_, 0);
  data_ = std::exchange(other.data_, nullptr);
  return *this;
}

template class CTensor<float>;
