#pragma once

#include <tarvo/variational.h>

#include <cstddef>

#include "device/memory.h"

namespace variational {

/// The buffers of CGtmp and FPtmp for planes of up to `floats` floats (pitch * height).
class Scratch {
 public:
  explicit Scratch(std::size_t floats);
  void release();
  CGtmp cg() const;
  FPtmp fp() const;

 private:
  static constexpr int kVectors = 5;
  static constexpr int kPlanes = 12;
  device::Buffer vectors_[kVectors];
  device::Buffer planes_[kPlanes];
};

}  // namespace variational
