#include <tarvo/CMatrix.h>
#include <tarvo/exceptions.h>

#include <cmath>
#include <numeric>
#include <utility>
#include <vector>

namespace {

/// A times B. The terms of an element are added in increasing index, the elements of a row side by side.
template <typename T>
CMatrix<T> product(const CMatrix<T>& A, const CMatrix<T>& B) {
  if (A.sizeX() != B.sizeY()) throw EIncompatibleMatrices(A.sizeX(), A.sizeY(), B.sizeX(), B.sizeY());
  CMatrix<T> P(B.sizeX(), A.sizeY(), T(0));
  for (int y = 0; y < A.sizeY(); ++y) {
    for (int k = 0; k < A.sizeX(); ++k) {
      const T factor = A(k, y);
      for (int x = 0; x < B.sizeX(); ++x) P(x, y) += factor * B(x, k);
    }
  }
  return P;
}

/// Row from `k` on with the largest magnitude in column k; the first of equals.
int pivotRow(const CMatrix<double>& M, int k) {
  int pivot = k;
  for (int row = k + 1; row < M.sizeY(); ++row) {
    if (std::fabs(M(k, row)) > std::fabs(M(k, pivot))) pivot = row;
  }
  return pivot;
}

/// One step of the elimination: column k becomes a column of the inverse, in place.
void eliminate(CMatrix<double>& M, int k) {
  const int n = M.sizeX();
  const double q = 1 / M(k, k);
  for (int row = 0; row < n; ++row) M(k, row) *= q;
  M(k, k) = q;
  for (int column = 0; column < n; ++column) {
    if (column == k) continue;
    for (int row = 0; row < n; ++row) {
      if (row != k) M(column, row) -= M(k, row) * M(column, k);
    }
    M(column, k) *= -q;
  }
}

}  // namespace

CMatrix<float> operator*(const CMatrix<float>& A, const CMatrix<float>& B) {
  return product(A, B);
}

template <typename T>
CMatrix<T>& CMatrix<T>::operator*=(const CMatrix& other) {
  return *this = product(*this, other);
}

template <typename T>
void CMatrix<T>::inv() {
  if (sizeX_ != sizeY_) throw ENonquadraticMatrix(sizeX_, sizeY_);
  const int n = sizeX_;
  std::vector<int> order(static_cast<std::size_t>(n));
  std::iota(order.begin(), order.end(), 0);
  std::vector<T> scratch(static_cast<std::size_t>(n));
  for (int k = 0; k < n; ++k) {
    const int pivot = pivotRow(*this, k);
    if (!(std::fabs((*this)(k, pivot)) > 0)) return;
    if (pivot != k) {
      for (int column = 0; column < n; ++column) std::swap((*this)(column, k), (*this)(column, pivot));
      std::swap(order[k], order[pivot]);
    }
    eliminate(*this, k);
  }
  for (int row = 0; row < n; ++row) {
    for (int j = 0; j < n; ++j) scratch[order[j]] = (*this)(j, row);
    for (int j = 0; j < n; ++j) (*this)(j, row) = scratch[j];
  }
}

template CMatrix<float>& CMatrix<float>::operator*=(const CMatrix<float>&);
template CMatrix<double>& CMatrix<double>::operator*=(const CMatrix<double>&);
template void CMatrix<double>::inv();
