#pragma once

#include <tarvo/CVector.h>
#include <tarvo/export.h>

/// One-dimensional filter mask. Entry (centre + i) is the weight of the sample at offset i from the output
/// position. Available for float, as are the masks derived from it.
template <typename T>
class TARVO_API CFilter : public CVector<T> {
 public:
  /// Empty mask; filtering with it gives zero.
  CFilter() = default;
  /// `size` entries with unspecified contents, entry `centre` applied at offset 0.
  /// @throws std::length_error      negative size
  /// @throws std::invalid_argument  centre is not one of the entries, or not 0 in an empty mask
  CFilter(int size, int centre);
  CFilter(const CFilter& other) = default;
  /// Takes over the entries of `other`, which becomes empty.
  CFilter(CFilter&& other) noexcept;
  ~CFilter() override;

  CFilter& operator=(const CFilter& other) = default;
  CFilter& operator=(CFilter&& other) noexcept;

  /// Index of the entry applied at offset 0.
  int centre() const { return centre_; }

 private:
  int centre_ = 0;
};

/// Gaussian mask: symmetric, sum 1 up to rounding.
template <typename T>
class TARVO_API CSmooth : public CFilter<T> {
 public:
  /// Radius r = ceil(precision * sigma), 2 * r + 1 entries, centre r.
  /// @param sigma      standard deviation [samples]. If it is not greater than 0 (not-a-number included), or
  ///                   so small that its square vanishes in single precision, the mask is one entry 1, which
  ///                   leaves samples unchanged.
  /// @param precision  radius in standard deviations; 3 is usual. A radius below 0 counts as 0.
  /// @throws std::length_error  2 * r + 1 does not fit an int
  CSmooth(float sigma, float precision);
};

/// Mask for the first derivative by central differences.
template <typename T>
class TARVO_API CDerivative : public CFilter<T> {
 public:
  /// @param size  3: (-1, 0, 1) / 2; 5: (1, -8, 0, 8, -1) / 12
  /// @throws EFilterNotAvailable  any other size
  explicit CDerivative(int size);
};

extern template class CFilter<float>;
extern template class CSmooth<float>;
extern template class CDerivative<float>;
