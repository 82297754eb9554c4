#pragma once

#include <tarvo/export.h>

// Structure tensors of the data terms and diffusivities of the smoothness term, on device planes of h x w,
// pitch p; stacked planes are h * p floats apart. Tensor planes: J11, J22, J33, J12, J13, J23, index 1 = du,
// 2 = dv, 3 = constant. Any device error prints its message (unit "OpticalFlowGPU") and ends the process.

/// Adds the brightness-constancy tensor to `stData` and the gradient-constancy tensor to `stGrad` (six planes
/// each), summed over the channels, every squared constraint divided by the magnitude of its gradient.
/// Spatial derivatives are taken of `image1`, with a five-tap mask.
/// @param image1, warped2 `channels` stacked planes; warped2 is the second image warped by the current flow
/// @param gconf           validity of the warp: 1 inside, 0 outside, where nothing is added
TARVO_API void MakeST(const float* image1, const float* warped2, float* stData, float* stGrad,
                      const float* gconf, int h, int w, int p, int channels);

/// Adds one channel's brightness tensor: k = gconf / sqrt(Ix^2 + Iy^2 + 0.000001) times the products of
/// (Ix, Iy, Iz). No check.
TARVO_API void makeST_kernel(float* stData, const float* Ix, const float* Iy, const float* Iz,
                             const float* gconf, int h, int w, int p);
/// Adds one channel's two gradient tensors, the products of (Ixx, Ixy, Ixz) and of (Ixy, Iyy, Iyz), each
/// tensor divided by sqrt(square sum of its first two entries + 0.000001) and times gconf. No check.
TARVO_API void makeST2_kernel(float* stGrad, const float* Ixx, const float* Ixy, const float* Iyy,
                              const float* Ixz, const float* Iyz, const float* gconf, int h, int w, int p);

/// Diffusivities 1 / sqrt(|grad u|^2 + |grad v|^2 + 0.000001) of the total flow (u + du, v + dv), gradients
/// in pixels of motion per pixel. Stored at (x, y): diffX between (x, y) and (x + 1, y), diffY between (x, y)
/// and (x, y + 1). The last column of diffX and the last row of diffY hold 1000.
TARVO_API void gDiffusivity(const float* u, const float* v, const float* du, const float* dv, float* diffX,
                            float* diffY, int h, int w, int p);
/// For x < w - 1: diff += (f(x + 1, y) - f(x, y))^2 + (0.5 (fy(x, y) + fy(x + 1, y)))^2. No check.
TARVO_API void gradientX_kernel(float* diff, const float* fy, const float* f, int h, int w, int p);
/// For y < h - 1: diff += (0.5 (fx(x, y) + fx(x, y + 1)))^2 + (f(x, y + 1) - f(x, y))^2. No check.
TARVO_API void gradientY_kernel(float* diff, const float* fx, const float* f, int h, int w, int p);
