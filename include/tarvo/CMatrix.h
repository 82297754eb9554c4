#pragma once

#include <tarvo/export.h>

/// Owning array of sizeX columns and sizeY rows, row by row: element (x, y) lies at data()[y * sizeX + x].
/// Copying copies the elements; a container without storage has a null data pointer and sizes 0.
/// Available for float, double and bool (one byte per element).
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
  /// Takes over the sizes and the array of `other`, which becomes empty.
  CMatrix(CMatrix&& other) noexcept;
  virtual ~CMatrix();

  /// Copies sizes and elements. An array with the same number of elements is kept and overwritten (the shape
  /// may change), any other is released first. An empty source empties this matrix; so does std::bad_alloc.
  CMatrix& operator=(const CMatrix& other);
  /// Releases this array and takes over the sizes and the array of `other`, which becomes empty.
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

  // Resampling to other sizes, in place; for float. If anything is thrown, this matrix is unchanged.

  /// Area average: every new element is the mean of the old ones over the area that it covers; an element
  /// that is covered in part counts in proportion. Single precision, along rows first.
  /// @param newX, newY  1 ... the old sizes; along an axis whose size stays nothing is averaged
  /// @throws std::invalid_argument  other sizes
  void downsample(int newX, int newY);

  /// Weighted reduction: element (x, y) is spread bilinearly, with the weight confidence(x, y), over the four
  /// new elements around (x * newX / sizeX, y * newY / sizeY). A new element is the weighted mean of what it
  /// receives, or 0 if it receives nothing.
  /// @param newX, newY  at least 1
  /// @param confidence  same sizes as this matrix; an element that is not greater than 0 (not-a-number
  ///                    included) contributes nothing. May be this matrix.
  /// @throws ETensorIncompatibleSize  confidence has other sizes
  /// @throws std::invalid_argument    sizes below 1
  void downsample(int newX, int newY, CMatrix& confidence);

  /// Bilinear samples at the centres of the new elements, borders repeated. Meant for enlargement: where the
  /// new sizes are smaller nothing is averaged.
  /// @param newX, newY  at least 1
  /// @throws std::invalid_argument  sizes below 1, or an empty matrix
  void upsampleBilinear(int newX, int newY);

  // Algebra: a matrix of sizeX columns and sizeY rows.

  /// This matrix times `other`; terms are added in order of increasing index, in the precision of T. For
  /// float and double.
  /// @throws EIncompatibleMatrices  sizeX is not other.sizeY; nothing has changed then
  CMatrix& operator*=(const CMatrix& other);

  /// Replaces a square matrix by its inverse: Gauss-Jordan elimination; the pivot of a column is its largest
  /// remaining element in magnitude. For double. A singular matrix is left partly transformed, without a
  /// message.
  /// @throws ENonquadraticMatrix  not square; nothing has changed then
  void inv();

 private:
  int sizeX_ = 0;
  int sizeY_ = 0;
  T* data_ = nullptr;
};

/// Product of two matrices; see operator*=.
/// @throws EIncompatibleMatrices  A.sizeX is not B.sizeY
TARVO_API CMatrix<float> operator*(const CMatrix<float>& A, const CMatrix<float>& B);

extern template class CMatrix<float>;
extern template class CMatrix<double>;
extern template class CMatrix<bool>;
