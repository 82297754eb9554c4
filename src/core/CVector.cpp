#include <tarvo/CVector.h>

#include <algorithm>
#include <utility>

#include "core/element_count.h"

template <typename T>
CVector<T>::CVector(int size) : size_(size), data_(new T[elementCount("CVector", size)]) {}

template <typename T>
CVector<T>::CVector(int size, T fill) : CVector(size) {
  std::fill_n(data_, size_, fill);
}

template <typename T>
CVector<T>::CVector(const CVector& other) : CVector() {
  *this = other;
}

template <typename T>
CVector<T>::CVector(CVector&& other) noexcept
    : size_(std::exchange(other.size_, 0)), data_(std::exchange(other.data_, nullptr)) {}

template <typename T>
CVector<T>::~CVector() {
  delete[] data_;
}

template <typename T>
CVector<T>& CVector<T>::operator=(const CVector& other) {
  if (this == &other) return *this;
  if (data_ == nullptr || other.data_ == nullptr || size() != other.size()) {
    *this = CVector();
    if (other.data_ == nullptr) return *this;
    data_ = new T[other.size()];
  }
  size_ = other.size_;
  std::copy_n(other.data_, other.size(), data_);
  return *this;
}

template <typename T>
CVector<T>& CVector<T>::operator=(CVector&& other) noexcept {
  if (this == &other) return *this;
  delete[] data_;
  size_ = std::exchange(other.size_, 0);
  data_ = std::exchange(other.data_, nullptr);
  return *this;
}

template class CVector<float>;
template class CVector<double>;
