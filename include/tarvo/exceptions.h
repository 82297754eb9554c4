#pragma once

#include <tarvo/export.h>

#include <exception>

// What the containers and filters throw when they are misused. Every class but EFilterNotAvailable writes one
// line to standard error when it is constructed, and flushes it. what() is the bare class name; they carry no
// data.

/// Two containers whose sizes must match do not match.
class TARVO_API ETensorIncompatibleSize : public std::exception {
 public:
  /// Sizes of the first (x1, y1) and of the second container (x2, y2).
  ETensorIncompatibleSize(int x1, int y1, int x2, int y2);
  const char* what() const noexcept override;
};

/// Two matrices whose product is not defined.
class TARVO_API EIncompatibleMatrices : public std::exception {
 public:
  /// Sizes of the left (x1, y1) and of the right matrix (x2, y2).
  EIncompatibleMatrices(int x1, int y1, int x2, int y2);
  const char* what() const noexcept override;
};

/// A matrix that must be square is not.
class TARVO_API ENonquadraticMatrix : public std::exception {
 public:
  ENonquadraticMatrix(int x, int y);
  const char* what() const noexcept override;
};

/// A filter's result does not have its source's sizes.
class TARVO_API EFilterIncompatibleSize : public std::exception {
 public:
  /// Element counts of source and result.
  EFilterIncompatibleSize(int initial, int resulting);
  const char* what() const noexcept override;
};

/// No mask is defined for the requested size. Writes no message.
class TARVO_API EFilterNotAvailable : public std::exception {
 public:
  EFilterNotAvailable();
  const char* what() const noexcept override;
};
