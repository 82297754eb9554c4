#pragma once

#include <tarvo/export.h>

/// Owning stack of sizeZ planes, each sizeX columns by sizeY rows: element (x, y, z) lies at data()[(z *
/// sizeY + y) * sizeX + x], so that plane z is laid out as a CMatrix of the same x and y sizes and starts at
/// element z * sizeX * sizeY. A colour image has one plane per channel; a flow field has plane 0 for the
/// horizontal and plane 1 for the vertical displacement. Copying copies the elements; a container without
/// storage has a null data pointer and sizes 0. Available for float.
template <typename T>
class TARVO_API CTensor {
 public:
  /// Empty: sizes 0, no storage.
  CTensor() = default;
  /// sizeX * sizeY * sizeZ elements with unspecified contents.
  /// @throws std::length_error  a negative size, or more than 2^31 - 1 elements; nothing is allocated then
  /// @throws std::bad_alloc     no memory
  CTensor(int sizeX, int sizeY, int sizeZ);
  /// The same with every element equal to `fill`.
  CTensor(int sizeX, int sizeY, int sizeZ, T fill);
  /// A new array with the sizes and elements of `other`.
  CTensor(const CTensor& other);
  /// Takes over the sizes and the array of `other`, which becomes empty.
  CTensor(CTensor&& other) noexcept;
  virtual ~CTensor();

  /// Copies sizes and elements. An array with the same number of elements is kept and overwritten (a tensor
  /// of 4 x 5 x 2 receives one of 10 x 4 x 1 without reallocation), any other is released first. An empty
  /// source empties this tensor, and so does std::bad_alloc.
  CTensor& operator=(const CTensor& other);
  /// Releases this array and takes over the sizes and the array of `other`, which becomes empty.
  CTensor& operator=(CTensor&& other) noexcept;

  /// Number of columns.
  int sizeX() const { return sizeX_; }
  /// Number of rows.
  int sizeY() const { return sizeY_; }
  /// Number of planes.
  int sizeZ() const { return sizeZ_; }
  /// Number of elements, sizeX * sizeY * sizeZ.
  int size() const { return sizeX_ * sizeY_ * sizeZ_; }
  /// First element, or null if empty.
  T* data() { return data_; }
  const T* data() const { return data_; }
  /// Element in column x, row y of plane z; not checked.
  T& operator()(int x, int y, int z) { return data_[(z * sizeY_ + y) * sizeX_ + x]; }
  const T& operator()(int x, int y, int z) const { return data_[(z * sizeY_ + y) * sizeX_ + x]; }

  // Resampling to other x and y sizes, in place: the CMatrix operation of the same name on every plane. If
  // anything is thrown, this tensor is unchanged.

  void downsample(int newX, int newY);
  /// Plane z of `confidence` weights plane z. It may be this tensor.
  /// @throws ETensorIncompatibleSize  confidence has other x or y sizes
  /// @throws std::invalid_argument    confidence has fewer planes
  void downsample(int newX, int newY, CTensor& confidence);
  void upsampleBilinear(int newX, int newY);

 private:
  int sizeX_ = 0;
  int sizeY_ = 0;
  int sizeZ_ = 0;
  T* data_ = nullptr;
};

extern template class CTensor<float>;
