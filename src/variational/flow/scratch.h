#pragma once

#include <tarvo/variational.h>

#include <cstddef>

#include "device/memory.h"

namespace variational {

/// What the fixed-point steps of a flow computation work on, for planes of up to `floats` floats (pitch *
/// height): 29 planes. Fields of FPtmp and CGtmp that the fused steps never touch (the factors of an
/// assembly, the preconditioned residual) are null.
class Scratch {
 public:
  static constexpr int kPlanes = 29;

  explicit Scratch(std::size_t floats);
  void release();
  CGtmp cg() const;
  FPtmp fp() const;

 private:
  std::size_t floats_;
  device::Buffer increment_, tensors_;
  device::Buffer
      system_;  // matrix, right-hand side, diffusivities; before them the derivatives of the pictures
  device::Buffer r_, search_, q_;
};

}  // namespace variational
