#include <tarvo/CMatrix.h>

#include <algorithm>
#include <utility>

#include "core/element_count.h"

template <typename T>
CMatrix<T>::CMatrix(int sizeX, int sizeY)
    : sizeX_(sizeX), sizeY_(sizeY), data_(new T[elementCount("CMatrix", sizeX, sizeY)]) {}

template <typename T>
CMatrix<T>::CMatrix(int sizeX, int sizeY, T fill) : CMatrix(sizeX, sizeY) {
  std::fill_n(data_, size(), fill);
}

template <typename T>
CMatrix<T>::CMatrix(const CMatrix& other) : CMatrix() {
  *this = other;
}

template <typename T>
CMatrix<T>::CMatrix(CMatrix&& other) noexcept
    : sizeX_(std::exchange(other.sizeX_, 0)),
      sizeY_(std::exchange(other.sizeY_, 0)),
      data_(std::exchange(other.data_, nullptr)) {}

template <typename T>
CMatrix<T>::~CMatrix() {
  delete[] data_;
}

template <typename T>
CMatrix<T>& CMatrix<T>::operator=(const CMatrix& other) {
  if (this == &other) return *this;
  if (data_ == nullptr || other.data_ == nullptr || size() != other.size()) {
    *this = CMatrix();
    if (other.data_ == nullptr) return *this;
    data_ = new T[other.size()];
  }
  sizeX_ = other.sizeX_;
  sizeY_ = other.sizeY_;
  std::copy_n(other.data_, other.size(), data_);
  return *this;
}

template <typename T>
CMatrix<T>& CMatrix<T>::operator=(CMatrix&& other) noexcept {
  if (this == &other) return *this;
  delete[] data_;
  sizeX_ = std::exchange(other.sizeX_, 0);
  sizeY_ = std::exchange(other.sizeY_, 0);
  data_ = std::exchange(other.data_, nullptr);
  return *this;
}

template class CMatrix<float>;
template class CMatrix<double>;
template class CMatrix<bool>;
