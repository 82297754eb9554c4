#pragma once

#include "device/dot.h"
#include "variational/solver/solver_kernels.h"

namespace kernels {

/// A whole solve in one launch, as the CUDA device runs it: the same operations as the list of launches in
/// variational::plainPCG, in phases with a barrier of all threads behind each. Floats that a pixel reads and
/// writes where the couplings stand once (SystemLayout):
///
///   - begin: r = rhs - A x, s = z, segment sums of r * z: reads rhs 2, x 2, A 5, writes r 2, s 2
///
/// then, until the stopping test or the last iteration:
///
///   - product: q = A s, segment sums of s * q: reads A 5, s 2, writes q 2
///   - step: x += alpha s, r -= alpha q, segment sums of r * z: reads A 3, x, s, r and q 8, writes x, r 4
///   - search: s = s * beta + z: reads A 3, r 2, s 2, writes s 2
///
/// 33 an iteration; z is recomputed from r and never stored. A warp takes a segment (see device/dot.h), lane
/// j its columns j, j + 32, ...; every block adds up the segment sums for itself, so all threads know the
/// scalars and decide alike. The two products have sums of their own: while one is read, slower blocks may
/// still write the other.
struct PersistentSolve {
  const float *matrix, *rhs;
  float *x, *r, *search, *q;  // two planes each
  float *productSums, *residualSums;
  int h, w, p, iterations;
  SystemLayout layout;

  enum class Phase { Begin, Product, Step, Search };

  /// One pixel of a phase; the phase's product, added to `sum`. `factor` is alpha (Step) or beta (Search).
  template <Phase kPhase>
  TARVO_HOST_DEVICE float pixel(int column, int row, float factor, float sum) const {
    const int i = row * p + column;
    const int n = h * p;
    if constexpr (kPhase == Phase::Begin) {
      MatrixResidual{matrix, rhs, x, x + n, h, w, p, r, layout}(column, row);
      const Pair z = preconditioned(i);
      search[i] = z.first;
      search[i + n] = z.second;
      return fmaf(r[i + n], z.second, fmaf(r[i], z.first, sum));
    } else if constexpr (kPhase == Phase::Product) {
      MatrixProduct{matrix, search, search + n, h, w, p, q, layout, layout.uv}(column, row);
      return fmaf(search[i + n], q[i + n], fmaf(search[i], q[i], sum));
    } else if constexpr (kPhase == Phase::Step) {
      x[i] = fmaf(factor, search[i], x[i]);
      x[i + n] = fmaf(factor, search[i + n], x[i + n]);
      r[i] = fmaf(-factor, q[i], r[i]);
      r[i + n] = fmaf(-factor, q[i + n], r[i + n]);
      const Pair z = preconditioned(i);
      return fmaf(r[i + n], z.second, fmaf(r[i], z.first, sum));
    } else {
      const Pair z = preconditioned(i);
      search[i] = fmaf(search[i], factor, z.first);
      search[i + n] = fmaf(search[i + n], factor, z.second);
      return 0.0f;
    }
  }
  TARVO_HOST_DEVICE Pair preconditioned(int i) const {
    const int n = h * p;
    return blockSolve(matrix[i], matrix[i + layout.vu], matrix[i + layout.vv], r[i], r[i + n]);
  }

  /// The phases in order. `Threads` runs a phase at all pixels, with a barrier behind it, and adds up sums.
  template <class Threads>
  TARVO_HOST_DEVICE void run(Threads& threads) const {
    threads.template runPhase<Phase::Begin>(*this, 0.0f, residualSums);
    float rz = threads.total(residualSums);
    for (int k = 0; k < iterations && !solved(rz); ++k) {
      threads.template runPhase<Phase::Product>(*this, 0.0f, productSums);
      const float alpha = rz / threads.total(productSums);
      threads.template runPhase<Phase::Step>(*this, alpha, residualSums);
      if (k + 1 == iterations) break;
      const float next = threads.total(residualSums);
      const float beta = next / rz;
      rz = next;
      if (!solved(rz)) threads.template runPhase<Phase::Search>(*this, beta, nullptr);
    }
  }
};

}  // namespace kernels
