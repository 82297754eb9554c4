#include <tarvo/exceptions.h>

#include <cstdio>

ETensorIncompatibleSize::ETensorIncompatibleSize(int x1, int y1, int x2, int y2) {
  std::fprintf(stderr, "Exception ETensorIncompatibleSize: x = %d:%d, y = %d:%d\n", x1, x2, y1, y2);
  std::fflush(stderr);
}

const char* ETensorIncompatibleSize::what() const noexcept {
  return "ETensorIncompatibleSize";
}

EIncompatibleMatrices::EIncompatibleMatrices(int x1, int y1, int x2, int y2) {
  std::fprintf(stderr, "Exception EIncompatibleMatrices: M1 = %dx%d  M2 = %dx%d\n", x1, y1, x2, y2);
  std::fflush(stderr);
}

const char* EIncompatibleMatrices::what() const noexcept {
  return "EIncompatibleMatrices";
}

ENonquadraticMatrix::ENonquadraticMatrix(int x, int y) {
  // The spelling is part of the message that clients may look for.
  std::fprintf(stderr, "Exception ENonquadarticMatrix: M = %dx%d\n", x, y);
  std::fflush(stderr);
}

const char* ENonquadraticMatrix::what() const noexcept {
  return "ENonquadraticMatrix";
}

EFilterIncompatibleSize::EFilterIncompatibleSize(int initial, int resulting) {
  std::fprintf(
      stderr, "Exception EFilterIncompatibleSize: Initial container size: %d  Resulting container size: %d\n",
      initial, resulting);
  std::fflush(stderr);
}

const char* EFilterIncompatibleSize::what() const noexcept {
  return "EFilterIncompatibleSize";
}

EFilterNotAvailable::EFilterNotAvailable() = default;

const char* EFilterNotAvailable::what() const noexcept {
  return "EFilterNotAvailable";
}
