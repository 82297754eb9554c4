#include "variational/flow/scratch.h"

#include "variational/solver/solver_kernels.h"
#include "variational/units.h"

namespace variational {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

constexpr int kTensorPlanes = 6;
constexpr int kMatrixPlanes = kernels::SystemLayout::kOncePlanes;
constexpr int kSystemPlanes = kMatrixPlanes + 2 + 2;
static_assert(kSystemPlanes >= 9, "structureTensors keeps nine planes of derivatives there");

}  // namespace

static_assert(Scratch::kPlanes == kSystemPlanes + 2 * kTensorPlanes + 4 * 2,
              "what the constructor allocates");

Scratch::Scratch(std::size_t floats) : floats_(floats) {
  TARVO_CALL(system_.allocate(kSystemPlanes * floats));
  TARVO_CALL(tensors_.allocate(2 * kTensorPlanes * floats));
  for (device::Buffer* pair : {&increment_, &r_, &search_, &q_}) TARVO_CALL(pair->allocate(2 * floats));
}

void Scratch::release() {
  for (device::Buffer* buffer : {&system_, &tensors_, &increment_, &r_, &search_, &q_}) {
    TARVO_CALL(buffer->release());
  }
}

CGtmp Scratch::cg() const {
  CGtmp cg{};
  cg.r = r_.get();
  cg.search = search_.get();
  cg.q = q_.get();
  return cg;
}

FPtmp Scratch::fp() const {
  FPtmp fp{};
  fp.increment = increment_.get();
  fp.stData = tensors_.get();
  fp.stGrad = fp.stData + kTensorPlanes * floats_;
  fp.matrix = system_.get();
  fp.rhs = fp.matrix + kMatrixPlanes * floats_;
  fp.diffX = fp.rhs + 2 * floats_;
  fp.diffY = fp.diffX + floats_;
  return fp;
}

}  // namespace variational
