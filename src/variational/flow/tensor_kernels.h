#pragma once

#include <algorithm>

#include "device/sample.h"
#include "variational/elementwise_kernels.h"

namespace kernels {

/// Taps of the fourth-order first derivative and of the central difference, in order.
TARVO_HOST_DEVICE float derivative5(float a, float b, float c, float d, float e) {
  return fmaf(-1.0f / 12.0f, e,
              fmaf(2.0f / 3.0f, d, fmaf(0.0f, c, fmaf(-2.0f / 3.0f, b, fmaf(1.0f / 12.0f, a, 0.0f)))));
}
TARVO_HOST_DEVICE float derivative3(float a, float b, float c) {
  return fmaf(0.5f, c, fmaf(0.0f, b, fmaf(-0.5f, a, 0.0f)));
}

/// Derivative of a plane along x at (x, y); inside: no border within two columns.
template <bool kInside>
TARVO_HOST_DEVICE float derivativeX(const float* plane, int x, int y, int w, int p) {
  const float* row = plane + y * p;
  if (kInside) return derivative5(row[x - 2], row[x - 1], row[x], row[x + 1], row[x + 2]);
  const auto at = [row, w](int column) { return row[std::min(std::max(column, 0), w - 1)]; };
  return derivative5(at(x - 2), at(x - 1), at(x), at(x + 1), at(x + 2));
}
TARVO_HOST_DEVICE float derivativeY(const float* plane, int x, int y, int h, int p) {
  const int a = std::max(y - 2, 0) * p, b = std::max(y - 1, 0) * p;
  const int d = std::min(y + 1, h - 1) * p, e = std::min(y + 2, h - 1) * p;
  return derivative5(plane[a + x], plane[b + x], plane[y * p + x], plane[d + x], plane[e + x]);
}

/// First derivatives of one channel, and its difference to the warped image.
struct FirstDerivatives {
  const float *image1, *warped2;
  float *Ix, *Iy, *Iz;
  int h, w, p;
  static constexpr int kReach = 2;

  TARVO_HOST_DEVICE void operator()(int x, int y) const { at<false>(x, y); }
  TARVO_HOST_DEVICE void inside(int x, int y) const { at<true>(x, y); }
  template <bool kInside>
  TARVO_HOST_DEVICE void at(int x, int y) const {
    const int i = y * p + x;
    Ix[i] = derivativeX<kInside>(image1, x, y, w, p);
    Iy[i] = derivativeY(image1, x, y, h, p);
    Iz[i] = warped2[i] - image1[i];
  }
};

/// Sums of the six entries of a tensor over the channels.
struct TensorSum {
  float j11, j22, j33, j12, j13, j23;

  TARVO_HOST_DEVICE static TensorSum load(const float* tensor, int i, int n) {
    return {tensor[i],         tensor[i + n],     tensor[i + 2 * n],
            tensor[i + 3 * n], tensor[i + 4 * n], tensor[i + 5 * n]};
  }
  TARVO_HOST_DEVICE void store(float* tensor, int i, int n) const {
    tensor[i] = j11;
    tensor[i + n] = j22;
    tensor[i + 2 * n] = j33;
    tensor[i + 3 * n] = j12;
    tensor[i + 4 * n] = j13;
    tensor[i + 5 * n] = j23;
  }
  /// k times the products of (gx, gy, gz).
  TARVO_HOST_DEVICE void add(float gx, float gy, float gz, float k) {
    j11 += gx * (gx * k);
    j22 += gy * (gy * k);
    j33 += gz * (gz * k);
    j12 += gy * (gx * k);
    j13 += gz * (gx * k);
    j23 += gz * (gy * k);
  }
  /// k = g / sqrt(gx^2 + gy^2 + 0.000001) times the products of (gx, gy, gz).
  TARVO_HOST_DEVICE void addBrightness(float gx, float gy, float gz, float g) {
    const float k = static_cast<float>(static_cast<double>(g) /
                                       std::sqrt(static_cast<double>(gx * gx + gy * gy) + kRootOffset));
    add(gx, gy, gz, k);
  }
  /// g / (gx^2 + gy^2 + squaredZeta) times the products of (gx, gy, gz).
  TARVO_HOST_DEVICE void addNormalised(float gx, float gy, float gz, float g, float squaredZeta) {
    add(gx, gy, gz, g / (gx * gx + gy * gy + squaredZeta));
  }
  /// The products of (xx, xy, xz) and of (xy, yy, yz), each over the magnitude of its gradient, times g.
  TARVO_HOST_DEVICE void addGradient(float xx, float xy, float yy, float xz, float yz, float g) {
    const float kx = inverseRoot(xx * xx + xy * xy);
    const float ky = inverseRoot(xy * xy + yy * yy);
    j11 += g * (xx * xx * kx + xy * xy * ky);
    j22 += g * (xy * xy * kx + yy * yy * ky);
    j33 += g * (xz * xz * kx + yz * yz * ky);
    j12 += g * xy * (xx * kx + yy * ky);
    j13 += g * (xx * xz * kx + xy * yz * ky);
    j23 += g * (xy * xz * kx + yy * yz * ky);
  }
};

/// The squares of the normalised constraints' zetas: none.
struct NoZetas {
  static constexpr bool kNormalised = false;
  static constexpr float data = 0.0f, gradient = 0.0f;
};
struct SquaredZetas {
  static constexpr bool kNormalised = true;
  float data, gradient;
};

/// Both tensors of `Channels` channels in one visit, from stacks of first derivatives; added to what the
/// tensors hold, or to zero where kFresh. The same operations as the kernels below, channel by channel, unless
/// the constraints are normalised.
template <int Channels, bool kFresh, class Zetas>
struct SumTensors {
  const float *Ix, *Iy, *Iz, *gconf;
  float *stData, *stGrad;
  int h, w, p;
  Zetas zetas;
  static constexpr int kReach = 2;
  static constexpr bool kInPlace = !kFresh;

  TARVO_HOST_DEVICE void operator()(int x, int y) const { at<false>(x, y); }
  TARVO_HOST_DEVICE void inside(int x, int y) const { at<true>(x, y); }
  template <bool kInside>
  TARVO_HOST_DEVICE void at(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float g = gconf[i];
    TensorSum data = kFresh ? TensorSum{} : TensorSum::load(stData, i, n);
    TensorSum grad = kFresh ? TensorSum{} : TensorSum::load(stGrad, i, n);
    addChannel<kInside, 0>(x, y, g, data, grad);
    if constexpr (Channels == 3) {  // written out: an inner loop would keep the outer one from vectorising
      addChannel<kInside, 1>(x, y, g, data, grad);
      addChannel<kInside, 2>(x, y, g, data, grad);
    }
    data.store(stData, i, n);
    grad.store(stGrad, i, n);
  }
  template <bool kInside, int c>
  TARVO_HOST_DEVICE void addChannel(int x, int y, float g, TensorSum& data, TensorSum& grad) const {
    const int i = y * p + x;
    const int offset = c * h * p;
    const float *gx = Ix + offset, *gy = Iy + offset, *gz = Iz + offset;
    const float xx = derivativeX<kInside>(gx, x, y, w, p), xy = derivativeY(gx, x, y, h, p),
                yy = derivativeY(gy, x, y, h, p), xz = derivativeX<kInside>(gz, x, y, w, p),
                yz = derivativeY(gz, x, y, h, p);
    if constexpr (Zetas::kNormalised) {
      data.addNormalised(gx[i], gy[i], gz[i], g, zetas.data);
      grad.addNormalised(xx, xy, xz, g, zetas.gradient);
      grad.addNormalised(xy, yy, yz, g, zetas.gradient);
    } else {
      data.addBrightness(gx[i], gy[i], gz[i], g);
      grad.addGradient(xx, xy, yy, xz, yz, g);
    }
  }
};

struct makeST_kernel {
  float* stData;
  const float *Ix, *Iy, *Iz, *gconf;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    TensorSum sum = TensorSum::load(stData, i, n);
    sum.addBrightness(Ix[i], Iy[i], Iz[i], gconf[i]);
    sum.store(stData, i, n);
  }
};

struct makeST2_kernel {
  float* stGrad;
  const float *Ixx, *Ixy, *Iyy, *Ixz, *Iyz, *gconf;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    TensorSum sum = TensorSum::load(stGrad, i, n);
    sum.addGradient(Ixx[i], Ixy[i], Iyy[i], Ixz[i], Iyz[i], gconf[i]);
    sum.store(stGrad, i, n);
  }
};

struct gradientX_kernel {
  float* diff;
  const float *fy, *f;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    if (x >= w - 1) return;
    const int i = y * p + x;
    const float along = f[i + 1] - f[i];
    const float across = 0.5f * (fy[i] + fy[i + 1]);
    diff[i] += along * along + across * across;
  }
};

struct gradientY_kernel {
  float* diff;
  const float *fx, *f;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    if (y >= h - 1) return;
    const int i = y * p + x;
    const float along = f[i + p] - f[i];
    const float across = 0.5f * (fx[i] + fx[i + p]);
    diff[i] += across * across + along * along;
  }
};

/// Diffusivity of the default penalty at element i, for the squared flow gradient s.
struct PlainPenalty {
  TARVO_HOST_DEVICE float x(int /*i*/, float s) const { return inverseRoot(s); }
  TARVO_HOST_DEVICE float y(int /*i*/, float s) const { return inverseRoot(s); }
};

/// 1 / sqrt(s + epsilon^2) in single precision, times the pixel's edge weight where kEdges.
template <bool kEdges>
struct EdgePenalty {
  const float *edgeX, *edgeY;
  float squaredEpsilon;
  TARVO_HOST_DEVICE float x(int i, float s) const { return diffusivity(edgeX, i, s); }
  TARVO_HOST_DEVICE float y(int i, float s) const { return diffusivity(edgeY, i, s); }
  TARVO_HOST_DEVICE float diffusivity(const float* edge, int i, float s) const {
    return (kEdges ? edge[i] : 1.0f) / std::sqrt(s + squaredEpsilon);
  }
};

/// valid *= c^2, c = known1 * the bilinear sample of known2 at (x + u, y + v); whole: c counts as 0 unless it is 1.
struct WeighValid {
  float* valid;
  const float* known1;
  device::View known2;
  const float *u, *v;
  int h, w, p;
  bool whole;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const float c = known1[i] * known2.bilinear(static_cast<float>(x) + u[i], static_cast<float>(y) + v[i]);
    const float counts = whole && c < 1.0f ? 0.0f : c;
    valid[i] *= counts * counts;
  }
};

/// Weights of the smoothness between a pixel and its right and lower neighbour: power16(1 - d / (16 scale)),
/// about exp(-d / scale), d the root mean square difference of the channels. 1 at the last column and row.
struct EdgeWeights {
  const float* image;
  float *edgeX, *edgeY;
  int h, w, p;
  float inverseScale;  // 1 / (16 scale)

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    edgeX[i] = x < w - 1 ? across(i, i + 1) : 1.0f;
    edgeY[i] = y < h - 1 ? across(i, i + p) : 1.0f;
  }
  TARVO_HOST_DEVICE float across(int i, int j) const {
    const int n = h * p;
    const float r = image[j] - image[i], g = image[j + n] - image[i + n],
                b = image[j + 2 * n] - image[i + 2 * n];
    const float squares = fmaf(b, b, fmaf(g, g, r * r));
    return power16(fmaf(-inverseScale, std::sqrt(squares * (1.0f / 3.0f)), 1.0f));
  }
};

/// Both diffusivities of the total flow in one visit: the same operations as copying, adding, the central
/// differences with clamped borders, gradientX_kernel, gradientY_kernel and normalize_kernel in turn.
template <class Penalty>
struct TotalFlowDiffusivity {
  const float *u, *v, *du, *dv;
  float *diffX, *diffY;
  int h, w, p;
  Penalty penalty;
  static constexpr int kReach = 1;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    at(x, y, std::max(x - 1, 0), std::min(x + 1, w - 1));
  }
  TARVO_HOST_DEVICE void inside(int x, int y) const { at(x, y, x - 1, x + 1); }
  TARVO_HOST_DEVICE void at(int x, int y, int left, int right) const {
    float sumX = 0.0f;
    float sumY = 0.0f;
    addComponent(u, du, x, y, left, right, sumX, sumY);
    addComponent(v, dv, x, y, left, right, sumX, sumY);
    diffX[y * p + x] = penalty.x(y * p + x, sumX);
    diffY[y * p + x] = penalty.y(y * p + x, sumY);
  }

  TARVO_HOST_DEVICE void addComponent(const float* flow, const float* increment, int x, int y, int left,
                                      int right, float& sumX, float& sumY) const {
    const auto total = [flow, increment](int i) { return increment[i] + flow[i]; };
    const int above = std::max(y - 1, 0) * p, own = y * p, below = std::min(y + 1, h - 1) * p;
    const float t = total(own + x), tRight = total(own + right), tBelow = total(below + x);
    const float tLeft = total(own + left);
    const float alongX = tRight - t;
    const float acrossX = 0.5f * (derivative3(total(above + x), t, tBelow) +
                                  derivative3(total(above + right), tRight, total(below + right)));
    const float squaresX = alongX * alongX + acrossX * acrossX;
    sumX += x < w - 1 ? squaresX : 0.0f;
    const float alongY = tBelow - t;
    const float acrossY = 0.5f * (derivative3(tLeft, t, tRight) +
                                  derivative3(total(below + left), tBelow, total(below + right)));
    const float squaresY = acrossY * acrossY + alongY * alongY;
    sumY += y < h - 1 ? squaresY : 0.0f;
  }
};

}  // namespace kernels
