#pragma once

#include <tarvo/export.h>

/// Owning array of sizeX columns and sizeY rows, row by row: element (x, y) lies at data()[y * sizeX + x].
/// Copies copy the elements; a container without storage has a null data pointer and sizes 0. Exists for
/// float, double and bool (one byte per element).
template <typename T>
class TARVO_API CMatrix {
 public:
  /// Empty: sizes 0, no storage.
  CMatrix() = default;
  /// sizeX * sizeY elements with unspecified contents.
  /// @throws std::length_error  a negative size, or more than 2^31 - 1 elements; nothing is allocated then
  /// @throws std::bad_alloc     no memory
  CMatrix(int sizeX, int sizeY);
  /// The same with every element equal to `fill`.
  CMatrix(int sizeX, int sizeY, T fill);
  /// A new array with the sizes and elements of `other`.
  CMatrix(const CMatrix& other);
  /// Takes sizes and array of `other` over, which becomes empty.
  CMatrix(CMatrix&& other) noexcept;
  virtual ~CMatrix();

  /// Copies sizes and elements. An array with the same number of elements is kept and overwritten (the shape
  /// may change), any other is released first; an empty source empties this matrix. Empty after
  /// std::bad_alloc.
  CMatrix& operator=(const CMatrix& other);
  /// Releases this array and takes sizes and array of `other` over, which becomes empty.
  CMatrix& operator=(CMatrix&& other) noexcept;

  /// Number of columns.
  int sizeX() const { return sizeX_; }
  /// Number of rows.
  int sizeY() const { return sizeY_; }
  /// Number of elements, sizeX * sizeY.
  int size() const { return sizeX_ * sizeY_; }
  /// First element, or null if empty.
  T* data() { return data_; }
  const T* data() const { return data_; }
  /// Element in column x of row y; not checked.
  T& operator()(int x, int y) { return data_[y * sizeX_ + x]; }
  const T& operator()(int x, int y) const { return data_[y * sizeX_ + x]; }

 private:
  int sizeX_ = 0;
  int sizeY_ = 0;
  T* data_ = nullptr;
};

extern template class CMatrix<float>;
extern template class CMatrix<double>;
extern template class CMatrix<bool>;
