#pragma once

#include <tarvo/solvers.h>

#include "device/memory.h"

namespace variational {

/// A linear system of dense host arrays (matrix: 12 h rows of w floats, rhs: 2 h, du and dv: h each) on the
/// device. du and dv lie in one stack. Errors are reported in the name of `unit`.
class UploadedSystem {
 public:
  UploadedSystem(const char* unit, const float* matrix, const float* rhs, const float* du, const float* dv,
                 int h, int w)
      : kUnit(unit), h_(h), w_(w) {
    TARVO_CALL(x_.allocatePitched(&p_, w, 2 * h));
    TARVO_CALL(rhs_.allocate(device::planeFloats(h, p_, 2)));
    TARVO_CALL(matrix_.allocate(device::planeFloats(h, p_, kMatrixPlanes)));
    upload(this->du(), du, 1);
    upload(this->dv(), dv, 1);
    upload(rhs_.get(), rhs, 2);
    upload(matrix_.get(), matrix, kMatrixPlanes);
  }
  const float* matrix() const { return matrix_.get(); }
  const float* rhs() const { return rhs_.get(); }
  float* du() const { return x_.get(); }
  float* dv() const { return x_.get() + device::planeFloats(h_, p_); }
  int pitch() const { return p_; }

  /// Copies the solution to dense host planes.
  void download(float* du, float* dv) const {
    TARVO_CALL(device::copyPlanes(du, w_, this->du(), p_, h_, w_, 1, device::Direction::ToHost));
    TARVO_CALL(device::copyPlanes(dv, w_, this->dv(), p_, h_, w_, 1, device::Direction::ToHost));
  }
  void release() {
    TARVO_CALL(x_.release());
    TARVO_CALL(rhs_.release());
    TARVO_CALL(matrix_.release());
  }

 private:
  void upload(float* to, const float* from, int planes) const {
    TARVO_CALL(device::copyPlanes(to, p_, from, w_, h_, w_, planes, device::Direction::ToDevice));
  }

  const char* kUnit;  // the name that the checks look for
  device::Buffer x_, rhs_, matrix_;
  int h_, w_, p_ = 0;
};

}  // namespace variational
