#include <tarvo/elementwise.h>
#include <tarvo/filters.h>
#include <tarvo/picture.h>
#include <tarvo/pyramid.h>
#include <tarvo/variational.h>

#include "device/memory.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;
constexpr float kDerivative3[3] = {-0.5f, 0.0f, 0.5f};

/// Scratch of the energy: one plane each.
struct Planes {
  device::Buffer squares, derivative;
  int h, w, p;

  Planes(int rows, int columns, int pitch) : h(rows), w(columns), p(pitch) {
    TARVO_CALL(squares.allocate(device::planeFloats(h, p)));
    TARVO_CALL(derivative.allocate(device::planeFloats(h, p)));
    clear();
  }
  void clear() { setValue_kernel(squares.get(), h, w, p, 0.0f); }
  void addSquare(const float* plane) {
    Mult_kernel(derivative.get(), plane, plane, h, w, p);
    Add_kernel(squares.get(), derivative.get(), h, w, p);
  }
  /// Adds the squared central differences of a plane along x and y.
  void addGradient(const float* plane) {
    gConvolveX(derivative.get(), plane, h, w, p, kDerivative3, 3);
    Mult_kernel(derivative.get(), derivative.get(), derivative.get(), h, w, p);
    Add_kernel(squares.get(), derivative.get(), h, w, p);
    gConvolveY(derivative.get(), plane, h, w, p, kDerivative3, 3);
    Mult_kernel(derivative.get(), derivative.get(), derivative.get(), h, w, p);
    Add_kernel(squares.get(), derivative.get(), h, w, p);
  }
  /// The sum of the robust penalty of what was added; starts anew.
  float penalty() {
    Psi_kernel(squares.get(), h, w, p);
    const float sum = findSum(squares.get(), h, w, p);
    clear();
    return sum;
  }
};

}  // namespace

float gObjectiveValue(float* image1, float* image2, float* u, float* v, int h, int w, int p, float gamma,
                      float /*reserved*/, float alpha) {
  const std::size_t n = device::planeFloats(h, p);
  device::Buffer difference, validity;
  TARVO_CALL(difference.allocate(kPictureChannels * n));
  TARVO_CALL(validity.allocate(n));
  gWarpMotion(difference.get(), u, v, image2, image1, kPictureChannels, validity.get(), h, w, p);
  Diff_kernel(difference.get(), difference.get(), image1, kPictureChannels * h, w, p);

  Planes planes(h, w, p);
  float gradient = 0.0f;
  float brightness = 0.0f;
  for (int c = 0; c < kPictureChannels; ++c) {
    const float* plane = difference.get() + static_cast<std::size_t>(c) * n;
    planes.addGradient(plane);
    gradient += planes.penalty();
    planes.addSquare(plane);
    brightness += planes.penalty();
  }
  planes.addGradient(u);
  planes.addGradient(v);
  const float smoothness = planes.penalty();

  TARVO_CALL(difference.release());
  TARVO_CALL(validity.release());
  TARVO_CALL(planes.squares.release());
  TARVO_CALL(planes.derivative.release());
  return (gamma * gradient + brightness + alpha * smoothness) / static_cast<float>(h * w);
}
