#pragma once

#include <cmath>

#include "reference/filter_reference.h"

/// Plain twins of the structure tensors and diffusivities.
namespace reference {

inline float inverseRoot(float numerator, float squares) {
  return static_cast<float>(static_cast<double>(numerator) /
                            std::sqrt(static_cast<double>(squares) + 0.000001));
}

struct Tensors {
  Planes data, grad;  // J11, J22, J33, J12, J13, J23
};

inline void addTensors(Tensors& tensors, const Planes& first, const Planes& second, const Planes& gconf) {
  const std::vector<float> mask{1.0f / 12.0f, -2.0f / 3.0f, 0.0f, 2.0f / 3.0f, -1.0f / 12.0f};
  Planes difference(first.h, first.w);
  for (std::size_t i = 0; i < difference.values.size(); ++i) {
    difference.values[i] = second.values[i] - first.values[i];
  }
  const Planes Ix = convolveX(first, mask), Iy = convolveY(first, mask), Iz = difference;
  const Planes Ixx = convolveX(Ix, mask), Ixy = convolveY(Ix, mask), Iyy = convolveY(Iy, mask);
  const Planes Ixz = convolveX(Iz, mask), Iyz = convolveY(Iz, mask);
  forPixels(first.h, first.w, [&](int x, int y) {
    const float g = gconf.at(x, y);
    const float gx = Ix.at(x, y), gy = Iy.at(x, y), gz = Iz.at(x, y);
    const float k = inverseRoot(g, gx * gx + gy * gy);
    const float data[6] = {gx * (gx * k), gy * (gy * k), gz * (gz * k),
                           gy * (gx * k), gz * (gx * k), gz * (gy * k)};
    const float xx = Ixx.at(x, y), xy = Ixy.at(x, y), yy = Iyy.at(x, y), xz = Ixz.at(x, y), yz = Iyz.at(x, y);
    const float kx = inverseRoot(1.0f, xx * xx + xy * xy);
    const float ky = inverseRoot(1.0f, xy * xy + yy * yy);
    const float grad[6] = {g * (xx * xx * kx + xy * xy * ky), g * (xy * xy * kx + yy * yy * ky),
                           g * (xz * xz * kx + yz * yz * ky), g * xy * (xx * kx + yy * ky),
                           g * (xx * xz * kx + xy * yz * ky), g * (xy * xz * kx + yy * yz * ky)};
    for (int j = 0; j < 6; ++j) {
      tensors.data.at(x, y, j) = tensors.data.at(x, y, j) + data[j];
      tensors.grad.at(x, y, j) = tensors.grad.at(x, y, j) + grad[j];
    }
  });
}

/// Tensors of all channels, from zero.
inline Tensors structureTensors(const Planes& image1, const Planes& warped2, const Planes& gconf) {
  Tensors tensors{Planes(image1.h, image1.w, 6), Planes(image1.h, image1.w, 6)};
  for (int k = 0; k < image1.count; ++k) addTensors(tensors, image1.plane(k), warped2.plane(k), gconf);
  return tensors;
}

struct Diffusivities {
  Planes x, y;
};

inline Diffusivities diffusivities(const Planes& u, const Planes& v, const Planes& du, const Planes& dv) {
  const std::vector<float> mask{-0.5f, 0.0f, 0.5f};
  const int h = u.h, w = u.w;
  Diffusivities diff{Planes(h, w), Planes(h, w)};
  for (int component = 0; component < 2; ++component) {
    Planes total = component == 0 ? u : v;
    const Planes& increment = component == 0 ? du : dv;
    for (std::size_t i = 0; i < total.values.size(); ++i)
      total.values[i] = increment.values[i] + total.values[i];
    const Planes fx = convolveX(total, mask), fy = convolveY(total, mask);
    forPixels(h, w, [&](int x, int y) {
      if (x < w - 1) {
        const float along = total.at(x + 1, y) - total.at(x, y);
        const float across = 0.5f * (fy.at(x, y) + fy.at(x + 1, y));
        diff.x.at(x, y) = diff.x.at(x, y) + (along * along + across * across);
      }
      if (y < h - 1) {
        const float along = total.at(x, y + 1) - total.at(x, y);
        const float across = 0.5f * (fx.at(x, y) + fx.at(x, y + 1));
        diff.y.at(x, y) = diff.y.at(x, y) + (across * across + along * along);
      }
    });
  }
  for (Planes* plane : {&diff.x, &diff.y}) {
    for (float& value : plane->values) value = inverseRoot(1.0f, value);
  }
  return diff;
}

}  // namespace reference
