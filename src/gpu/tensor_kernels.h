#pragma once

#include "gpu/elementwise_kernels.h"

namespace kernels {

struct makeST_kernel {
  float* stData;
  const float *Ix, *Iy, *Iz, *gconf;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float gx = Ix[i], gy = Iy[i], gz = Iz[i];
    const float k = static_cast<float>(static_cast<double>(gconf[i]) /
                                       std::sqrt(static_cast<double>(gx * gx + gy * gy) + kRootOffset));
    stData[i] += gx * (gx * k);
    stData[i + n] += gy * (gy * k);
    stData[i + 2 * n] += gz * (gz * k);
    stData[i + 3 * n] += gy * (gx * k);
    stData[i + 4 * n] += gz * (gx * k);
    stData[i + 5 * n] += gz * (gy * k);
  }
};

struct makeST2_kernel {
  float* stGrad;
  const float *Ixx, *Ixy, *Iyy, *Ixz, *Iyz, *gconf;
  int h, w, p;

  TARVO_HOST_DEVICE void operator()(int x, int y) const {
    const int i = y * p + x;
    const int n = h * p;
    const float xx = Ixx[i], xy = Ixy[i], yy = Iyy[i], xz = Ixz[i], yz = Iyz[i];
    const float g = gconf[i];
    const float kx = inverseRoot(xx * xx + xy * xy);
    const float ky = inverseRoot(xy * xy + yy * yy);
    stGrad[i] += g * (xx * xx * kx + xy * xy * ky);
    stGrad[i + n] += g * (xy * xy * kx + yy * yy * ky);
    stGrad[i + 2 * n] += g * (xz * xz * kx + yz * yz * ky);
    stGrad[i + 3 * n] += g * xy * (xx * kx + yy * ky);
    stGrad[i + 4 * n] += g * (xx * xz * kx + xy * yz * ky);
    stGrad[i + 5 * n] += g * (xy * xz * kx + yy * yz * ky);
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

}  // namespace kernels
