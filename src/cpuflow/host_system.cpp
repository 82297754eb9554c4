#include "cpuflow/host_system.h"

#include <tarvo/NFilter.h>
#include <tarvo/solvers.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "variational/elementwise_kernels.h"

namespace cpuflow {
namespace {

using kernels::kRootOffset;

/// numerator / sqrt(s + kRootOffset), in double precision, rounded once.
inline float robust(float numerator, float s) {
  return static_cast<float>(static_cast<double>(numerator) / std::sqrt(static_cast<double>(s) + kRootOffset));
}

/// Normalisation of a constancy equation by its squared gradient; kRootOffset is added in single precision.
inline float normalisation(float squaredGradient) {
  const float s = squaredGradient + static_cast<float>(kRootOffset);
  return static_cast<float>(1.0 / std::sqrt(static_cast<double>(s)));
}

CMatrix<float> derivative(const CMatrix<float>& plane, const CDerivative<float>& mask, bool alongX) {
  CMatrix<float> result(plane.sizeX(), plane.sizeY());
  if (alongX) {
    NFilter::filter(plane, result, mask, 1);
  } else {
    NFilter::filter(plane, result, 1, mask);
  }
  return result;
}

/// One row of all planes of a motion tensor.
struct TensorRow {
  float *t11, *t22, *t33, *t12, *t13, *t23;

  TensorRow(MotionTensor& tensor, int y)
      : t11(tensor.row(MotionTensor::T11, y)),
        t22(tensor.row(MotionTensor::T22, y)),
        t33(tensor.row(MotionTensor::T33, y)),
        t12(tensor.row(MotionTensor::T12, y)),
        t13(tensor.row(MotionTensor::T13, y)),
        t23(tensor.row(MotionTensor::T23, y)) {}
};

/// Adds a row of the brightness equation Ix du + Iy dv + Iz = 0.
void addBrightness(const TensorRow& t, const float* ix, const float* iy, const float* iz, int n) {
#pragma omp simd
  for (int x = 0; x < n; ++x) {
    const float w = normalisation(ix[x] * ix[x] + iy[x] * iy[x]);
    t.t11[x] += w * ix[x] * ix[x];
    t.t22[x] += w * iy[x] * iy[x];
    t.t33[x] += w * iz[x] * iz[x];
    t.t12[x] += w * ix[x] * iy[x];
    t.t13[x] += w * ix[x] * iz[x];
    t.t23[x] += w * iy[x] * iz[x];
  }
}

/// Adds a row of the gradient equations Ixx du + Ixy dv + Ixz = 0 and Ixy du + Iyy dv + Iyz = 0.
void addGradient(const TensorRow& t, const float* ixx, const float* ixy, const float* iyy, const float* ixz,
                 const float* iyz, int n) {
#pragma omp simd
  for (int x = 0; x < n; ++x) {
    const float w1 = normalisation(ixx[x] * ixx[x] + ixy[x] * ixy[x]);
    const float w2 = normalisation(ixy[x] * ixy[x] + iyy[x] * iyy[x]);
    t.t11[x] += w1 * ixx[x] * ixx[x] + w2 * ixy[x] * ixy[x];
    t.t22[x] += w1 * ixy[x] * ixy[x] + w2 * iyy[x] * iyy[x];
    t.t33[x] += w1 * ixz[x] * ixz[x] + w2 * iyz[x] * iyz[x];
    t.t12[x] += (w1 * ixx[x] + w2 * iyy[x]) * ixy[x];
    t.t13[x] += w1 * ixz[x] * ixx[x] + w2 * ixy[x] * iyz[x];
    t.t23[x] += w1 * ixy[x] * ixz[x] + w2 * iyz[x] * iyy[x];
  }
}

/// One row of the quantities that every equation of a pixel takes part in.
struct EquationRow {
  float *bu, *bv, *auu, *avv;
};

/// Couples n pixels to a neighbour whose flow lies `neighbour` elements further, with their common smoothness
/// weights.
void couple(const EquationRow& row, float* coupling, float* copy, const float* weight, const float* u,
            const float* v, std::ptrdiff_t neighbour, int n) {
#pragma omp simd
  for (int x = 0; x < n; ++x) {
    const float w = weight[x];
    row.bu[x] += w * (u[x + neighbour] - u[x]);
    row.bv[x] += w * (v[x + neighbour] - v[x]);
    row.auu[x] += w;
    row.avv[x] += w;
    coupling[x] = -w;
    copy[x] = -w;
  }
}

/// One row's match parts, summed over the candidates.
struct MatchRow {
  std::vector<float> weight, u, v;

  explicit MatchRow(int n) : weight(static_cast<std::size_t>(n)), u(weight), v(weight) {}
  void clear() {
    for (std::vector<float>* part : {&weight, &u, &v}) std::fill(part->begin(), part->end(), 0.0f);
  }
};

void addMatches(MatchRow& sums, const float* matchU, const float* matchV, const float* confidence,
                const float* u, const float* v, const float* du, const float* dv, float beta, int n) {
  float *weight = sums.weight.data(), *partU = sums.u.data(), *partV = sums.v.data();
#pragma omp simd
  for (int x = 0; x < n; ++x) {
    const float ru = u[x] + du[x] - matchU[x];
    const float rv = v[x] + dv[x] - matchV[x];
    const float w = robust(beta * confidence[x], ru * ru + rv * rv);
    const bool matched = confidence[x] > 0.0f;
    weight[x] += matched ? w : 0.0f;
    partU[x] += matched ? (u[x] - matchU[x]) * w : 0.0f;
    partV[x] += matched ? (v[x] - matchV[x]) * w : 0.0f;
  }
}

/// weight[x] = numerator over the root of the tensor's squared residual, which counts as 0 where rounding
/// made it negative.
void dataWeights(float* weight, float numerator, const MotionTensor& tensor, int y, const float* du,
                 const float* dv, int n) {
  const float *t11 = tensor.row(MotionTensor::T11, y), *t22 = tensor.row(MotionTensor::T22, y),
              *t33 = tensor.row(MotionTensor::T33, y), *t12 = tensor.row(MotionTensor::T12, y),
              *t13 = tensor.row(MotionTensor::T13, y), *t23 = tensor.row(MotionTensor::T23, y);
#pragma omp simd
  for (int x = 0; x < n; ++x) {
    const float u = du[x], v = dv[x];
    const float e =
        t11[x] * u * u + t22[x] * v * v + t33[x] + 2.0f * (t12[x] * u * v + t13[x] * u + t23[x] * v);
    weight[x] = robust(numerator, e < 0.0f ? 0.0f : e);
  }
}

}  // namespace

void robustWeights(float* s, int n) {
#pragma omp simd
  for (int i = 0; i < n; ++i) s[i] = robust(1.0f, s[i]);
}

DataTerms::DataTerms(const CTensor<float>& image1, const CTensor<float>& warped2, const CMatrix<float>& valid)
    : brightness(image1.sizeX(), image1.sizeY()), gradient(image1.sizeX(), image1.sizeY()) {
  for (int k = 0; k < image1.sizeZ(); ++k) addChannel(image1, warped2, k);
  const int n = valid.size();
  for (MotionTensor* tensor : {&brightness, &gradient}) {
    for (int plane = 0; plane < MotionTensor::kPlanes; ++plane) {
      float* values = &tensor->planes(0, 0, plane);
      for (int i = 0; i < n; ++i) values[i] *= valid.data()[i];
    }
  }
}

void DataTerms::addChannel(const CTensor<float>& image1, const CTensor<float>& warped2, int channel) {
  const int w = image1.sizeX(), h = image1.sizeY();
  const CDerivative<float> mask(5);
  CMatrix<float> image(w, h), change(w, h);
  std::copy_n(&image1(0, 0, channel), image.size(), image.data());
  const float* warped = &warped2(0, 0, channel);
  for (int i = 0; i < change.size(); ++i) change.data()[i] = warped[i] - image.data()[i];
  const CMatrix<float> ix = derivative(image, mask, true), iy = derivative(image, mask, false);
  const CMatrix<float> ixx = derivative(ix, mask, true), ixy = derivative(ix, mask, false);
  const CMatrix<float> iyy = derivative(iy, mask, false);
  const CMatrix<float> ixz = derivative(change, mask, true), iyz = derivative(change, mask, false);
  for (int y = 0; y < h; ++y) {
    addBrightness(TensorRow(brightness, y), &ix(0, y), &iy(0, y), &change(0, y), w);
    addGradient(TensorRow(gradient, y), &ixx(0, y), &ixy(0, y), &iyy(0, y), &ixz(0, y), &iyz(0, y), w);
  }
}

namespace {

/// Builds one system, row by row.
class Assembly {
 public:
  Assembly(const SystemInput& in, float* matrix, float* rhs)
      : in_(in),
        matrix_(matrix),
        rhs_(rhs),
        w_(in.flow.sizeX()),
        h_(in.flow.sizeY()),
        data_(static_cast<std::size_t>(w_)),
        gradient_(data_),
        match_(w_) {}

  void assembleRow(int y) {
    weightRow(y);
    dataRow(y);
    const float *u = &in_.flow(0, y, 0), *v = &in_.flow(0, y, 1);
    const EquationRow row{rhsRow(0, y), rhsRow(1, y), matrixRow(kMatrixUU, y), matrixRow(kMatrixVV, y)};
    if (y > 0) {
      couple(row, matrixRow(kMatrixNorth, y), matrixRow(kMatrixNorth + 1, y), &in_.diffY(0, y - 1), u, v, -w_,
             w_);
    }
    const EquationRow next{row.bu + 1, row.bv + 1, row.auu + 1, row.avv + 1};
    couple(next, matrixRow(kMatrixWest, y) + 1, matrixRow(kMatrixWest + 1, y) + 1, &in_.diffX(0, y), u + 1,
           v + 1, -1, w_ - 1);
    couple(row, matrixRow(kMatrixEast, y), matrixRow(kMatrixEast + 1, y), &in_.diffX(0, y), u, v, 1, w_ - 1);
    if (y < h_ - 1) {
      couple(row, matrixRow(kMatrixSouth, y), matrixRow(kMatrixSouth + 1, y), &in_.diffY(0, y), u, v, w_, w_);
    }
  }

 private:
  float* matrixRow(int plane, int y) const {
    return matrix_ + (static_cast<std::ptrdiff_t>(plane) * h_ + y) * w_;
  }
  float* rhsRow(int plane, int y) const { return rhs_ + (static_cast<std::ptrdiff_t>(plane) * h_ + y) * w_; }

  /// Robust weights of one row at the current increment.
  void weightRow(int y) {
    const float *u = &in_.flow(0, y, 0), *v = &in_.flow(0, y, 1);
    const float *du = &in_.increment(0, y, 0), *dv = &in_.increment(0, y, 1);
    dataWeights(data_.data(), in_.weights.data, in_.data.brightness, y, du, dv, w_);
    dataWeights(gradient_.data(), in_.weights.gradient, in_.data.gradient, y, du, dv, w_);
    match_.clear();
    for (int m = 0; m < in_.matches.u.sizeZ(); ++m) {
      addMatches(match_, &in_.matches.u(0, y, m), &in_.matches.v(0, y, m), &in_.matches.weight(0, y, m), u, v,
                 du, dv, in_.weights.match, w_);
    }
  }

  /// Data and match parts of one row's equations.
  void dataRow(int y) const {
    const MotionTensor &j = in_.data.brightness, &g = in_.data.gradient;
    const auto combine = [&](float* out, MotionTensor::Plane plane, auto&& operation) {
      const float *jRow = j.row(plane, y), *gRow = g.row(plane, y);
#pragma omp simd
      for (int x = 0; x < w_; ++x) out[x] = operation(data_[x] * jRow[x], gradient_[x] * gRow[x], x);
    };
    const auto part = [](const std::vector<float>& match) {
      return [m = match.data()](float a, float b, int x) { return -a - b - m[x]; };
    };
    const auto diagonal = [m = match_.weight.data()](float a, float b, int x) { return a + m[x] + b; };
    const auto sum = [](float a, float b, int) { return a + b; };
    combine(rhsRow(0, y), MotionTensor::T13, part(match_.u));
    combine(rhsRow(1, y), MotionTensor::T23, part(match_.v));
    combine(matrixRow(kMatrixUU, y), MotionTensor::T11, diagonal);
    combine(matrixRow(kMatrixVV, y), MotionTensor::T22, diagonal);
    combine(matrixRow(kMatrixVU, y), MotionTensor::T12, sum);
    std::copy_n(matrixRow(kMatrixVU, y), w_, matrixRow(kMatrixUV, y));
  }

  const SystemInput& in_;
  float *matrix_, *rhs_;
  int w_, h_;
  std::vector<float> data_, gradient_;
  MatchRow match_;
};

}  // namespace

HostSystem::HostSystem(int w, int h)
    : matrix(12 * static_cast<std::size_t>(w) * static_cast<std::size_t>(h)),
      rhs(2 * static_cast<std::size_t>(w) * static_cast<std::size_t>(h)) {}

void HostSystem::assemble(const SystemInput& in) {
  // Couplings to neighbours that do not exist are never written and stay 0.
  Assembly assembly(in, matrix.data(), rhs.data());
  for (int y = 0; y < in.flow.sizeY(); ++y) assembly.assembleRow(y);
}

}  // namespace cpuflow
