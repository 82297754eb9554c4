// Half-sweep t may do row y once half-sweep t - 1 has done row y + 1, and must do it before half-sweep t + 1
// does row y - 1. So T half-sweeps go down the picture one row behind the other: step s does row s - t of
// half-sweep t for t = 0 ... T - 1, and only T + 2 rows are in use at a time.
//
// These rows lie in a ring, split by the parity of x: the pixels that a half-sweep relaxes in a row are then
// neighbours in memory, as are their four sets of neighbours. Rows are split as they enter the ring, where
// the blocks are inverted too; only the solution is written back as they leave it. What the ring holds beside
// a row's pixels is 0, so that no step needs a test for the border: a coupling of 0 to a value of +0 leaves
// the bits as they are.
//
// Several threads: every band of rows first does the rows that need nothing from other bands, one row fewer
// with each half-sweep at borders between bands. Then the rows left around each border are done, two more with
// each half-sweep.

#include "variational/solver/relax_system_cpu.h"

#include <algorithm>
#include <cstring>

#include "device/cpu/band.h"
#include "device/cpu/team.h"
#include "variational/solver/relax_system_kernels.h"

namespace variational {
namespace {

enum RingPlane { kUU, kUV, kVV, kRhsU, kRhsV, kEast, kSouth, kDu, kDv, kRingPlanes };

constexpr int kLine = 16;  // floats of a cache line

int roundedUp(int count) {
  return (count + kLine - 1) / kLine * kLine;
}

/// The pixels of a row with x of one parity, pixel x at index x / 2 of every plane.
struct Side {
  float* start;
  long stride;
  TARVO_HOST_DEVICE float* plane(int k) const { return start + k * stride; }
};

/// Rows by their number modulo `slots`, each two sides of kRingPlanes planes, and one row of zeros, which
/// stands for those above and below the picture.
struct Ring {
  float* start;
  long stride;  // floats of a plane: half a row and at least one cache line of zeros
  int slots, h;

  static long strideOf(int w) { return roundedUp((w + 1) / 2) + kLine; }
  static long rowFloats(int w) { return 2 * kRingPlanes * strideOf(w); }
  /// A cache line of zeros stands before the first row.
  static long floats(int w, int slots) { return (slots + 1) * rowFloats(w) + kLine; }

  Side side(int y, int parity) const {
    const int slot = y < 0 || y >= h ? slots : y % slots;
    return {start + kLine + (2L * slot + parity) * kRingPlanes * stride, stride};
  }
};

/// The rows of a wave: [begin, end) enter the ring, half-sweep t does [first - t * rise, last + t * fall).
struct Rows {
  int begin, end;
  int first, rise, last, fall;
};

struct Wave {
  CpuRelaxation system;
  Ring ring;
  Rows rows;
  int start, halfSweeps;  // half-sweeps start ... start + halfSweeps - 1 of the solve
};

/// to[0][k], to[1][k] = pixels 2 k, 2 k + 1 of a row.
TARVO_HOST void split(const float* from, int w, float* even, float* odd) {
#pragma omp simd
  for (int k = 0; k < w / 2; ++k) {
    even[k] = from[2 * k];
    odd[k] = from[2 * k + 1];
  }
  if (w % 2 != 0) even[w / 2] = from[w - 1];
}

TARVO_HOST void join(const float* even, const float* odd, int w, float* to) {
#pragma omp simd
  for (int k = 0; k < w / 2; ++k) {
    to[2 * k] = even[k];
    to[2 * k + 1] = odd[k];
  }
  if (w % 2 != 0) to[w - 1] = even[w / 2];
}

/// Row y enters the ring.
TARVO_BAND void enterRow(const CpuRelaxation& s, Side even, Side odd, int y) {
  const long n = static_cast<long>(s.h) * s.p;
  const long row = static_cast<long>(y) * s.p;
  const auto layout = kernels::SystemLayout::once(s.h * s.p, s.p);
  const float* matrix = s.matrix + row;
  const float* from[kRingPlanes] = {matrix,          matrix + layout.uv,   matrix + layout.vv,    s.rhs + row,
                                    s.rhs + row + n, matrix + layout.east, matrix + layout.south, s.d + row,
                                    s.d + row + n};
  for (int k = 0; k < kRingPlanes; ++k) split(from[k], s.w, even.plane(k), odd.plane(k));
  const Side lastSide = s.w % 2 != 0 ? even : odd;
  lastSide.plane(kEast)[(s.w - 1) / 2] = 0.0f;
  const int count = (s.w + 1) / 2;
  const float omega = s.omega;
  for (const Side side : {even, odd}) {
    if (y == s.h - 1) std::memset(side.plane(kSouth), 0, static_cast<std::size_t>(count) * sizeof(float));
    float* uu = side.plane(kUU);
    float* uv = side.plane(kUV);
    float* vv = side.plane(kVV);
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const kernels::Block inverse = kernels::scaledInverse({uu[k], uv[k], vv[k]}, omega);
      uu[k] = inverse.uu;
      uv[k] = inverse.uv;
      vv[k] = inverse.vv;
    }
  }
}

TARVO_BAND void leaveRow(const CpuRelaxation& s, Side even, Side odd, int y) {
  const long n = static_cast<long>(s.h) * s.p;
  float* d = s.d + static_cast<long>(y) * s.p;
  join(even.plane(kDu), odd.plane(kDu), s.w, d);
  join(even.plane(kDv), odd.plane(kDv), s.w, d + n);
}

/// Where one side of a row and its neighbours stand.
struct RelaxedRow {
  const float *uu, *uv, *vv, *rhsU, *rhsV, *north, *west, *east, *south;
  const float *northU, *northV, *westU, *westV, *eastU, *eastV, *southU, *southV;
  float *du, *dv;
  float keep;

  TARVO_HOST_DEVICE void at(int k) const {
    kernels::NeighbourResidual left{rhsU[k], rhsV[k]};
    left.decouple(north[k], northU[k], northV[k]);
    left.decouple(west[k], westU[k], westV[k]);
    left.decouple(east[k], eastU[k], eastV[k]);
    left.decouple(south[k], southU[k], southV[k]);
    const kernels::Pair value = kernels::relaxed({uu[k], uv[k], vv[k]}, left, keep, du[k], dv[k]);
    du[k] = value.first;
    dv[k] = value.second;
  }
};

TARVO_HOST RelaxedRow relaxedRow(const Ring& ring, int y, int parity, float keep) {
  const Side own = ring.side(y, parity);
  const Side other = ring.side(y, 1 - parity);
  const Side above = ring.side(y - 1, parity);
  const Side below = ring.side(y + 1, parity);
  const int west = parity - 1;  // x - 1 and x + 1 at indices k + west and k + east of the other side
  const int east = parity;
  return {own.plane(kUU),
          own.plane(kUV),
          own.plane(kVV),
          own.plane(kRhsU),
          own.plane(kRhsV),
          above.plane(kSouth),
          other.plane(kEast) + west,
          own.plane(kEast),
          own.plane(kSouth),
          above.plane(kDu),
          above.plane(kDv),
          other.plane(kDu) + west,
          other.plane(kDv) + west,
          other.plane(kDu) + east,
          other.plane(kDv) + east,
          below.plane(kDu),
          below.plane(kDv),
          own.plane(kDu),
          own.plane(kDv),
          keep};
}

/// One row of a half-sweep; in whole cache lines, of which the ring has room for.
TARVO_BAND void relaxRow(RelaxedRow r, int count) {
  const int whole = (count + kLine - 1) & -kLine;
#pragma omp simd
  for (int k = 0; k < whole; ++k) r.at(k);
  r.du[count] = r.dv[count] = 0.0f;  // the neighbour of the row's last pixel
}

void runWave(const Wave& wave) {
  const CpuRelaxation& s = wave.system;
  const Ring& ring = wave.ring;
  const Rows& rows = wave.rows;
  std::memset(ring.start, 0, static_cast<std::size_t>(Ring::floats(s.w, ring.slots)) * sizeof(float));
  for (int step = rows.begin - 1; step < rows.end + wave.halfSweeps; ++step) {
    const int entering = step + 1;
    if (entering < rows.end) enterRow(s, ring.side(entering, 0), ring.side(entering, 1), entering);
    for (int t = 0; t < wave.halfSweeps; ++t) {
      const int y = step - t;
      if (y < rows.first - t * rows.rise || y >= rows.last + t * rows.fall) continue;
      const int parity = (y + wave.start + t) & 1;
      relaxRow(relaxedRow(ring, y, parity, 1.0f - s.omega), (s.w + 1 - parity) / 2);
    }
    const int leaving = step - wave.halfSweeps;
    if (leaving >= rows.begin) leaveRow(s, ring.side(leaving, 0), ring.side(leaving, 1), leaving);
  }
}

/// The rows of band `band` of `bands` that need nothing from the others.
Rows bandRows(int h, int bands, int band) {
  const int begin = static_cast<int>(static_cast<long>(h) * band / bands);
  const int end = static_cast<int>(static_cast<long>(h) * (band + 1) / bands);
  const int above = band > 0 ? 1 : 0;
  const int below = band + 1 < bands ? 1 : 0;
  return {begin, end, begin + above, -above, end - below, -below};
}

/// The rows that bandRows leaves at the border behind band `band`.
Rows seamRows(int h, int bands, int band, int halfSweeps) {
  const int border = static_cast<int>(static_cast<long>(h) * (band + 1) / bands);
  return {border - 1 - halfSweeps, border + 1 + halfSweeps, border - 1, 1, border + 1, 1};
}

int ringSlots(int halfSweeps) {
  return halfSweeps + 2;
}

/// Seams of neighbouring borders must not touch.
int leastRows(int halfSweeps) {
  return 2 * halfSweeps + 2;
}

/// Runs function(k) for k in [0, count) on the team.
template <class Function>
void forEach(int count, const Function& function) {
  device::cpu::forBandsOf(1, count, [&](int first, int end) {
    for (int k = first; k < end; ++k) function(k);
  });
}

}  // namespace

RelaxationPlan relaxationPlan(int h, int w, int sweeps) {
  constexpr long kWaveFloats = 512 * 1024;  // of a ring; beyond them one wave more costs less
  const int total = 2 * sweeps;
  const int most = static_cast<int>(std::max(4L, kWaveFloats / Ring::rowFloats(w) - 2));
  const int waves = (total + most - 1) / most;
  RelaxationPlan plan{(total + waves - 1) / waves, 1, 0};
  if (static_cast<long>(h) * w >= device::cpu::kPixelsForTeam) {
    plan.bands = std::clamp(h / leastRows(plan.halfSweeps), 1, device::cpu::teamSize());
  }
  plan.scratchFloats = static_cast<std::size_t>(plan.bands) *
                       static_cast<std::size_t>(Ring::floats(w, ringSlots(plan.halfSweeps)));
  return plan;
}

void cpuRelax(const CpuRelaxation& system, int sweeps, const RelaxationPlan& plan, float* scratch) {
  const int total = 2 * sweeps;
  for (int start = 0; start < total; start += plan.halfSweeps) {
    const int halfSweeps = std::min(plan.halfSweeps, total - start);
    const int slots = ringSlots(halfSweeps);
    const auto run = [&](int k, const Rows& rows) {
      float* memory = scratch + k * Ring::floats(system.w, ringSlots(plan.halfSweeps));
      runWave({system, {memory, Ring::strideOf(system.w), slots, system.h}, rows, start, halfSweeps});
    };
    forEach(plan.bands, [&](int k) { run(k, bandRows(system.h, plan.bands, k)); });
    if (plan.bands == 1) continue;
    forEach(plan.bands - 1, [&](int k) { run(k, seamRows(system.h, plan.bands, k, halfSweeps)); });
  }
}

}  // namespace variational
