#include <tarvo/solvers.h>
#include <tarvo/timers.h>

#include <cstddef>
#include <ctime>

#include "device/launch.h"
#include "device/memory.h"
#include "device/report.h"
#include "variational/solver/relaxation_kernels.h"
#include "variational/solver/uploaded_system.h"
#include "variational/units.h"

// Successive over-relaxation of 2 x 2 blocks, red-black on the device, in pixel order on the host.

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

using Relaxation = kernels::SORiteration_mem_opt_kernel;

constexpr int kBlock = 64;  // pixels of a colour relaxed side by side

/// Columns x0, x0 + 2, ... below x1 of an inner row y; all four neighbours exist.
TARVO_HOST_DEVICE void relaxInner(const Relaxation& r, int x0, int x1, int y) {
  float* du = r.du + static_cast<long>(y) * r.p;
  float* dv = r.dv + static_cast<long>(y) * r.p;
  float u[kBlock], v[kBlock];
  for (; x0 < x1; x0 += 2 * kBlock) {
    const int left = (x1 - x0 + 1) / 2;
    const int count = left < kBlock ? left : kBlock;
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const int x = x0 + 2 * k;
      if (x < 1 || x >= r.w - 1 || y < 1 || y >= r.h - 1) __builtin_unreachable();
      const kernels::Pair value = r.relaxed(x, y);
      u[k] = value.first;
      v[k] = value.second;
    }
    for (int k = 0; k < count; ++k) {
      du[x0 + 2 * k] = u[k];
      dv[x0 + 2 * k] = v[k];
    }
  }
}

/// Rows y0 ... y1 - 1. The kernel is taken by value so that the compiler keeps its fields in registers.
TARVO_BAND void relaxBand(Relaxation r, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    const int first = (y + r.colour) & 1;
    if (y < 1 || y >= r.h - 1) {
      for (int column = 0; column < r.outW; ++column) r(column, y);
      continue;
    }
    if (first == 0) r(0, y);
    const int x0 = first == 0 ? 2 : 1;
    relaxInner(r, x0, r.w - 1, y);
    const int last = r.w - 1;
    if (last > 0 && ((last - first) & 1) == 0) r((last - first) / 2, y);
  }
}

/// One block of a pixel-order sweep: the u equation, then the v equation with the new du.
void relaxInOrder(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, float omega,
                  int x, int y) {
  const long i = static_cast<long>(y) * w + x;
  const long n = static_cast<long>(h) * w;
  float su = 0.0f, sv = 0.0f;
  const auto couple = [&](MatrixPlane plane, long j) {
    const float c = matrix[i + plane * n];
    su += c * du[j];
    sv += c * dv[j];
  };
  if (y >= 1) couple(kMatrixNorth, i - w);
  if (x >= 1) couple(kMatrixWest, i - 1);
  if (x < w - 1) couple(kMatrixEast, i + 1);
  if (y < h - 1) couple(kMatrixSouth, i + w);
  const float off = matrix[i + kMatrixVU * n];
  du[i] = du[i] * (1.0f - omega) + ((rhs[i] - su) - off * dv[i]) * omega / matrix[i + kMatrixUU * n];
  dv[i] = dv[i] * (1.0f - omega) + ((rhs[i + n] - sv) - off * du[i]) * omega / matrix[i + kMatrixVV * n];
}

}  // namespace

void SORiteration_mem_opt_kernel(const float* matrix, const float* rhs, float* du, float* dv, int h, int w,
                                 int colour, float omega, int p) {
  const Relaxation kernel{matrix, rhs, du, dv, h, w, colour, omega, p, (w + 1) / 2, h};
  launch(kernel,
         [&] { device::cpu::forBands(h, w, [&kernel](int y0, int y1) { relaxBand(kernel, y0, y1); }); });
}

void gRedBlack(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, int p,
               int iterations, float omega) {
  for (int k = 0; k < iterations; ++k) {
    SORiteration_mem_opt_kernel(matrix, rhs, du, dv, h, w, 0, omega, p);
    SORiteration_mem_opt_kernel(matrix, rhs, du, dv, h, w, 1, omega, p);
  }
}

void SORIterations(const float* matrix, const float* rhs, float* duOut, float* dvOut, const float* start,
                   int h, int w, float omega, int iterations) {
  const device::Entry entry;
  const std::clock_t begin = std::clock();
  variational::UploadedSystem system(kUnit, matrix, rhs, start, start + static_cast<std::ptrdiff_t>(h) * w, h,
                                     w);
  for (int k = 0; k < iterations; ++k) {
    gRedBlack(system.matrix(), system.rhs(), system.du(), system.dv(), h, w, system.pitch(), 1, omega);
    TARVO_LAUNCHED("SOR");
  }
  system.download(duOut, dvOut);
  system.release();
  sortimer += static_cast<double>(std::clock() - begin);
}

void GaussSeidel(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, float omega,
                 int iterations) {
  const device::Entry entry;
  const auto printResidual = [&](int k) {
    report::print("%d %f\n", k, static_cast<double>(computeResidual(matrix, rhs, du, dv, h, w)));
  };
  printResidual(0);
  for (int k = 1; k <= iterations; ++k) {
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) relaxInOrder(matrix, rhs, du, dv, h, w, omega, x, y);
    }
    printResidual(k);
  }
}
