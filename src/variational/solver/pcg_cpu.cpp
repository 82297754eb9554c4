// Preconditioned conjugate gradients in sweeps over rows: the same operations as the kernels in
// solver_kernels.h in an order that reads and writes every vector as seldom as possible. Floats moved per
// pixel and iteration, where a level is larger than the caches (a write counts its read-for-ownership):
//
//   sweep A   x += alpha * s of the last iteration, s = s * beta + z          x 4, s 4, r 2, block 3
//             one row ahead of q = A * s and of s * q                         couplings 2, q 4
//   sweep B   r -= alpha * q and r * z                                        r 4, q 2, block 3
//
// 28 floats, or 30 where all four couplings of a pixel are read (SystemLayout). The preconditioned residual z
// is recomputed from r and never stored; x waits for the next sweep A. The product r * z at the top of an
// iteration is the one from the bottom of the last. The rows of s beyond a chunk's ends, which other threads
// overwrite, are saved by sweep B and brought up to date by the chunk that reads them.

#include "variational/solver/pcg_cpu.h"

#include <algorithm>
#include <cstring>

#include "device/cpu/band.h"
#include "device/cpu/columns.h"
#include "device/cpu/team.h"
#include "device/dot.h"
#include "variational/solver/solver_kernels.h"

namespace variational {
namespace {

/// The two planes of a vector's row.
struct Row {
  float *first, *second;
};

/// Scratch rows of a chunk: its first and last row of the search direction before an advance.
enum class SavedRow { First = 0, Last = 1 };
constexpr int kSavedRows = 2;

struct Sweep {
  CpuSolve s;
  float alpha, beta;

  TARVO_HOST_DEVICE long plane() const { return static_cast<long>(s.h) * s.p; }
  TARVO_HOST_DEVICE Row row(float* vector, int y) const {
    float* start = vector + static_cast<long>(y) * s.p;
    return {start, start + plane()};
  }
  /// The row whose first element lies `offset` behind that of pixel (0, y) in the stack's first plane.
  TARVO_HOST_DEVICE const float* entryRow(long offset, int y) const {
    return s.matrix + (static_cast<long>(y) * s.p + offset);
  }
  /// A row of a chunk's own scratch.
  TARVO_HOST_DEVICE Row savedRow(int chunk, SavedRow which) const {
    float* start = s.halo + (static_cast<long>(chunk) * kSavedRows + static_cast<int>(which)) * 2 * s.w;
    return {start, start + s.w};
  }
  TARVO_HOST_DEVICE float* sumsOf(int y) const {
    return s.sums + static_cast<long>(y) * device::segmentsPerRow(s.w);
  }
};

/// search = search * beta + z with z = inverse block * r; first x += alpha * search where kWithX.
template <bool kWithX>
TARVO_HOST_DEVICE void advanceRow(const Sweep& sweep, int y, Row search) {
  const float* a0 = sweep.entryRow(0, y);
  const float* a1 = sweep.entryRow(sweep.s.layout.vu, y);
  const float* a3 = sweep.entryRow(sweep.s.layout.vv, y);
  const Row r = sweep.row(sweep.s.r, y);
  const Row x = sweep.row(sweep.s.x, y);
  const float alpha = sweep.alpha;
  const float beta = sweep.beta;
  const int w = sweep.s.w;
#pragma omp simd
  for (int i = 0; i < w; ++i) {
    const kernels::Pair z = kernels::blockSolve(a0[i], a1[i], a3[i], r.first[i], r.second[i]);
    if (kWithX) {
      x.first[i] = fmaf(alpha, search.first[i], x.first[i]);
      x.second[i] = fmaf(alpha, search.second[i], x.second[i]);
    }
    search.first[i] = fmaf(search.first[i], beta, z.first);
    search.second[i] = fmaf(search.second[i], beta, z.second);
  }
}

/// One row's matrix and vector, as the product and the residual read them.
struct Stencil {
  const float *a0, *off1, *off2, *a3, *north, *west, *east, *south;
  const float *c1, *c2, *n1, *n2, *s1, *s2;  // the vector's own row and those above and below
};

TARVO_HOST_DEVICE Stencil stencilOf(const Sweep& sweep, int y, Row above, Row own, Row below) {
  return {sweep.entryRow(0, y),
          sweep.entryRow(sweep.s.layout.uv, y),
          sweep.entryRow(sweep.s.layout.vu, y),
          sweep.entryRow(sweep.s.layout.vv, y),
          sweep.entryRow(sweep.s.layout.north, y),
          sweep.entryRow(sweep.s.layout.west, y),
          sweep.entryRow(sweep.s.layout.east, y),
          sweep.entryRow(sweep.s.layout.south, y),
          own.first,
          own.second,
          above.first,
          above.second,
          below.first,
          below.second};
}

/// As kernels::MatrixProduct, with VU, which the advance of the row has just read, for the equal entry UV.
struct Product {
  Row out;
  template <bool kNorth, bool kWest, bool kEast, bool kSouth>
  TARVO_HOST_DEVICE void at(const Stencil& t, int i) const {
    float out1 = fmaf(t.c1[i], t.a0[i], t.c2[i] * t.off2[i]);
    float out2 = fmaf(t.c1[i], t.off2[i], t.c2[i] * t.a3[i]);
    if (kNorth) out1 = fmaf(t.north[i], t.n1[i], out1), out2 = fmaf(t.north[i], t.n2[i], out2);
    if (kWest) out1 = fmaf(t.west[i], t.c1[i - 1], out1), out2 = fmaf(t.west[i], t.c2[i - 1], out2);
    if (kEast) out1 = fmaf(t.east[i], t.c1[i + 1], out1), out2 = fmaf(t.east[i], t.c2[i + 1], out2);
    if (kSouth) out1 = fmaf(t.south[i], t.s1[i], out1), out2 = fmaf(t.south[i], t.s2[i], out2);
    out.first[i] = out1;
    out.second[i] = out2;
  }
};

/// As kernels::MatrixResidual, then search = z.
struct Residual {
  Row rhs, r, search;
  template <bool kNorth, bool kWest, bool kEast, bool kSouth>
  TARVO_HOST_DEVICE void at(const Stencil& t, int i) const {
    float r1 = rhs.first[i] - fmaf(t.c1[i], t.a0[i], t.c2[i] * t.off1[i]);
    float r2 = rhs.second[i] - fmaf(t.c1[i], t.off2[i], t.c2[i] * t.a3[i]);
    if (kNorth) r1 = r1 - t.north[i] * t.n1[i], r2 = r2 - t.north[i] * t.n2[i];
    if (kWest) r1 = r1 - t.west[i] * t.c1[i - 1], r2 = r2 - t.west[i] * t.c2[i - 1];
    if (kEast) r1 = r1 - t.east[i] * t.c1[i + 1], r2 = r2 - t.east[i] * t.c2[i + 1];
    if (kSouth) r1 = r1 - t.south[i] * t.s1[i], r2 = r2 - t.south[i] * t.s2[i];
    const kernels::Pair z = kernels::blockSolve(t.a0[i], t.off2[i], t.a3[i], r1, r2);
    r.first[i] = r1;
    r.second[i] = r2;
    search.first[i] = z.first;
    search.second[i] = z.second;
  }
};

template <bool kNorth, bool kSouth, class Operation>
struct InnerColumns {
  const Operation& operation;
  const Stencil& t;
  TARVO_HOST_DEVICE void at(int i) const { operation.template at<kNorth, true, true, kSouth>(t, i); }
};

/// One row of a stencil operation, the border columns apart.
template <bool kNorth, bool kSouth, class Operation>
TARVO_HOST_DEVICE void stencilColumns(const Operation& operation, const Stencil& t, int w) {
  using device::cpu::kStep;
  if (w == 1) {
    operation.template at<kNorth, false, false, kSouth>(t, 0);
    return;
  }
  const int end = w - 1;
  operation.template at<kNorth, false, true, kSouth>(t, 0);
  if (w < kStep + 2) {
    for (int i = 1; i < end; ++i) operation.template at<kNorth, true, true, kSouth>(t, i);
  } else {
    device::cpu::forColumns(InnerColumns<kNorth, kSouth, Operation>{operation, t}, 1, end);
  }
  operation.template at<kNorth, true, false, kSouth>(t, end);
}

/// One row of a stencil operation. A function of its own, so that its loop has the registers to itself.
template <class Operation>
TARVO_BAND void stencilRow(const Operation& operation, const Stencil& t, int y, int h, int w) {
  if (y > 0 && y < h - 1) {
    stencilColumns<true, true>(operation, t, w);
  } else if (y > 0) {
    stencilColumns<true, false>(operation, t, w);
  } else if (h > 1) {
    stencilColumns<false, true>(operation, t, w);
  } else {
    stencilColumns<false, false>(operation, t, w);
  }
}

/// r = rhs - A * x, search = z, and the segment sums of r * z.
TARVO_BAND void beginBand(Sweep sweep, int y0, int y1) {
  const CpuSolve& s = sweep.s;
  for (int y = y0; y < y1; ++y) {
    const Row rhs = sweep.row(const_cast<float*>(s.rhs), y);
    const Row r = sweep.row(s.r, y);
    const Row search = sweep.row(s.search, y);
    const Stencil t = stencilOf(sweep, y, sweep.row(s.x, std::max(y - 1, 0)), sweep.row(s.x, y),
                                sweep.row(s.x, std::min(y + 1, s.h - 1)));
    stencilRow(Residual{rhs, r, search}, t, y, s.h, s.w);
    device::cpu::dotRow(r.first, search.first, r.second, search.second, s.w, sweep.sumsOf(y));
  }
}

/// Sweep A. kAdvance: not in the first iteration, whose search direction is ready.
template <bool kAdvance>
TARVO_BAND void productBand(Sweep sweep, int y0, int y1) {
  const CpuSolve& s = sweep.s;
  const int chunk = y0 / s.rows;
  Row above = sweep.row(s.search, std::max(y0 - 1, 0));
  Row belowLast = sweep.row(s.search, std::min(y1, s.h - 1));
  if (kAdvance) {
    if (y0 > 0) {
      above = sweep.savedRow(chunk - 1, SavedRow::Last);
      advanceRow<false>(sweep, y0 - 1, above);
    }
    if (y1 < s.h) {
      belowLast = sweep.savedRow(chunk + 1, SavedRow::First);
      advanceRow<false>(sweep, y1, belowLast);
    }
    advanceRow<true>(sweep, y0, sweep.row(s.search, y0));
  }
  for (int y = y0; y < y1; ++y) {
    if (kAdvance && y + 1 < y1) advanceRow<true>(sweep, y + 1, sweep.row(s.search, y + 1));
    const Row own = sweep.row(s.search, y);
    const Row below = y + 1 < y1 ? sweep.row(s.search, y + 1) : belowLast;
    const Row q = sweep.row(s.q, y);
    stencilRow(Product{q}, stencilOf(sweep, y, above, own, below), y, s.h, s.w);
    device::cpu::dotRow(own.first, q.first, own.second, q.second, s.w, sweep.sumsOf(y));
    above = own;
  }
}

/// One row of sweep B: r -= alpha * q, and the segment sums of r * z as device::cpu::dotRow, z in registers.
struct ResidualRow {
  const float *a0, *a1, *a3, *q1, *q2;
  float *r1, *r2;
  float alpha;

  TARVO_HOST_DEVICE float at(int i, float sum) const {
    const float first = fmaf(-alpha, q1[i], r1[i]);
    const float second = fmaf(-alpha, q2[i], r2[i]);
    const kernels::Pair z = kernels::blockSolve(a0[i], a1[i], a3[i], first, second);
    r1[i] = first;
    r2[i] = second;
    return fmaf(second, z.second, fmaf(first, z.first, sum));
  }
};

TARVO_HOST_DEVICE void residualRow(const Sweep& sweep, int y) {
  const Row r = sweep.row(sweep.s.r, y);
  const Row q = sweep.row(sweep.s.q, y);
  const ResidualRow row{sweep.entryRow(0, y),
                        sweep.entryRow(sweep.s.layout.vu, y),
                        sweep.entryRow(sweep.s.layout.vv, y),
                        q.first,
                        q.second,
                        r.first,
                        r.second,
                        sweep.alpha};
  device::cpu::sumRow(sweep.s.w, sweep.sumsOf(y), row);
}

/// Sweep B; also saves the chunk's first and last row of the search direction.
TARVO_BAND void residualBand(Sweep sweep, int y0, int y1) {
  const CpuSolve& s = sweep.s;
  const int chunk = y0 / s.rows;
  for (int y = y0; y < y1; ++y) residualRow(sweep, y);
  const auto save = [&](int y, SavedRow which) {
    const Row from = sweep.row(s.search, y);
    const Row to = sweep.savedRow(chunk, which);
    std::memcpy(to.first, from.first, static_cast<std::size_t>(s.w) * sizeof(float));
    std::memcpy(to.second, from.second, static_cast<std::size_t>(s.w) * sizeof(float));
  };
  save(y0, SavedRow::First);
  save(y1 - 1, SavedRow::Last);
}

/// x += alpha * search.
TARVO_BAND void solutionBand(Sweep sweep, int y0, int y1) {
  const int w = sweep.s.w;
  for (int y = y0; y < y1; ++y) {
    const Row x = sweep.row(sweep.s.x, y);
    const Row search = sweep.row(sweep.s.search, y);
    const float alpha = sweep.alpha;
#pragma omp simd
    for (int i = 0; i < w; ++i) {
      x.first[i] = fmaf(alpha, search.first[i], x.first[i]);
      x.second[i] = fmaf(alpha, search.second[i], x.second[i]);
    }
  }
}

/// Runs a band function over the chunks of a solve.
template <class Band>
void forChunks(const Sweep& sweep, const Band& band) {
  device::cpu::forBandsOf(sweep.s.rows, sweep.s.h, [&](int y0, int y1) { band(sweep, y0, y1); });
}

float dotOf(const CpuSolve& solve) {
  return device::cpu::sumSegments(solve.sums, static_cast<int>(device::dotScratch(solve.h, solve.w)));
}

}  // namespace

int cpuSolveRows(int h, int w) {
  return device::cpu::rowsPerChunk(h, w);
}

long cpuHaloFloats(int h, int w, int rows) {
  return static_cast<long>((h + rows - 1) / rows) * kSavedRows * 2 * w;
}

void cpuSolve(const CpuSolve& solve, int iterations) {
  Sweep sweep{solve, 0.0f, 0.0f};
  forChunks(sweep, beginBand);  // r = rhs - A x, z = B^-1 r, s = z
  float rz = dotOf(solve);      // r z
  if (kernels::solved(rz)) return;
  for (int k = 0; k < iterations; ++k) {
    forChunks(sweep,
              k == 0 ? productBand<false> : productBand<true>);  // x += alpha s, s = z + beta s; q = A s
    sweep.alpha = rz / dotOf(solve);                             // rz / (s q)
    if (k + 1 == iterations) break;                              // the next residual would serve nothing
    forChunks(sweep, residualBand);                              // r -= alpha q, z = B^-1 r
    const float next = dotOf(solve);                             // r z
    sweep.beta = next / rz;
    rz = next;
    if (kernels::solved(rz)) break;
  }
  forChunks(sweep, solutionBand);  // x += alpha s
}

}  // namespace variational
