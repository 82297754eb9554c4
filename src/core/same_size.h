#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/exceptions.h>

/// @throws EFilterIncompatibleSize  the result does not have the source's sizes
template <typename T>
void requireSameSize(const CTensor<T>& source, const CTensor<T>& result) {
  if (source.sizeX() != result.sizeX() || source.sizeY() != result.sizeY() ||
      source.sizeZ() != result.sizeZ()) {
    throw EFilterIncompatibleSize(source.size(), result.size());
  }
}

/// The same for matrices.
template <typename T>
void requireSameSize(const CMatrix<T>& source, const CMatrix<T>& result) {
  if (source.sizeX() != result.sizeX() || source.sizeY() != result.sizeY()) {
    throw EFilterIncompatibleSize(source.size(), result.size());
  }
}
