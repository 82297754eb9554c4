#include "variational/flow/scratch.h"

#include "variational/units.h"

namespace variational {
namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

/// Planes of each FPtmp buffer, in the record's order.
constexpr int kPlanesOf[] = {2, 6, 6, 1, 1, 1, 1, 1, 1, 1, 12, 2};

}  // namespace

Scratch::Scratch(std::size_t floats) {
  for (device::Buffer& vector : vectors_) TARVO_CALL(vector.allocate(2 * floats));
  for (int k = 0; k < kPlanes; ++k) {
    TARVO_CALL(planes_[k].allocate(static_cast<std::size_t>(kPlanesOf[k]) * floats));
  }
}

void Scratch::release() {
  for (device::Buffer& vector : vectors_) TARVO_CALL(vector.release());
  for (device::Buffer& plane : planes_) TARVO_CALL(plane.release());
}

CGtmp Scratch::cg() const {
  return {vectors_[0].get(), vectors_[1].get(), vectors_[2].get(), vectors_[3].get(), vectors_[4].get()};
}

FPtmp Scratch::fp() const {
  return {planes_[0].get(), planes_[1].get(), planes_[2].get(),  planes_[3].get(),
          planes_[4].get(), planes_[5].get(), planes_[6].get(),  planes_[7].get(),
          planes_[8].get(), planes_[9].get(), planes_[10].get(), planes_[11].get()};
}

}  // namespace variational
