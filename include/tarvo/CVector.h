#pragma once

#include <tarvo/export.h>

/// Owning array of `size` elements. Copying copies the elements; a container without storage has a null data
/// pointer and size 0. Available for float and double.
template <typename T>
class TARVO_API CVector {
 public:
  /// Empty: size 0, no storage.
  CVector() = default;
  /// `size` elements with unspecified contents.
  /// @throws std::length_error  negative size
  /// @throws std::bad_alloc     no memory
  explicit CVector(int size);
  /// `size` elements, each equal to `fill`. Throws as above.
  CVector(int size, T fill);
  /// A new array with the elements of `other`.
  CVector(const CVector& other);
  /// Takes over the array of `other`, which becomes empty.
  CVector(CVector&& other) noexcept;
  virtual ~CVector();

  /// Copies size and elements. An array with the same number of elements is kept and overwritten, any other
  /// is released first. An empty source empties this vector, and so does std::bad_alloc.
  CVector& operator=(const CVector& other);
  /// Releases this array and takes over that of `other`, which becomes empty.
  CVector& operator=(CVector&& other) noexcept;

  /// Number of elements.
  int size() const { return size_; }
  /// First element, or null if empty.
  T* data() { return data_; }
  const T* data() const { return data_; }
  /// Element i, 0 <= i < size(); not checked.
  T& operator()(int i) { return data_[i]; }
  const T& operator()(int i) const { return data_[i]; }

 private:
  int size_ = 0;
  T* data_ = nullptr;
};

extern template class CVector<float>;
extern template class CVector<double>;
