#pragma once

#include "variational/solver/solver_kernels.h"

namespace variational {

/// gPCG's form on the CPU device: two sweeps over the rows per iteration. See pcg_cpu.cpp.
/// @param x  two-plane stack, in: start, out: improved solution; iterations >= 1
/// @param r, search, q  scratch of two planes each
/// @param sums          scratch of dotScratch(h, w) floats
/// @param halo          scratch of cpuHaloFloats(h, w, rows) floats
struct CpuSolve {
  const float *matrix, *rhs;
  float* x;
  float *r, *search, *q;
  float *sums, *halo;
  int h, w, p;
  int rows;  ///< rows per chunk
  kernels::SystemLayout layout;
};

/// Rows per chunk of a solve, and the floats its halo needs.
int cpuSolveRows(int h, int w);
long cpuHaloFloats(int h, int w, int rows);

void cpuSolve(const CpuSolve& solve, int iterations);

}  // namespace variational
