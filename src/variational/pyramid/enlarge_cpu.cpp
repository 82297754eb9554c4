#include "variational/pyramid/enlarge_cpu.h"

#include <algorithm>
#include <utility>

#include "device/cpu/band.h"
#include "device/cpu/team.h"

namespace variational {
namespace {

constexpr int kSide = 128;  // target columns side by side

using Enlarge = kernels::EnlargeFlow;

/// Source columns of up to kSide neighbouring target columns.
struct Columns {
  int count;
  int left[kSide], right[kSide];
  float fx[kSide];

  TARVO_HOST void set(const Enlarge& enlarge, int x0) {
    count = std::min(kSide, enlarge.w - x0);
#pragma omp simd
    for (int k = 0; k < count; ++k) {
      const device::BilinearPosition at(static_cast<float>(x0 + k) / enlarge.factor, 0.0f, enlarge.u.h,
                                        enlarge.u.w);
      left[k] = at.x0;
      right[k] = at.x1;
      fx[k] = at.fx;
    }
  }
};

/// A source row of both components, interpolated along x.
struct Line {
  int row = -1;  // of the source; -1: none
  float u[kSide], v[kSide];

  TARVO_HOST void set(const Enlarge& enlarge, const Columns& columns, int y) {
    if (row == y) return;
    row = y;
    const float* fromU = enlarge.u.data + static_cast<long>(y) * enlarge.u.p;
    const float* fromV = enlarge.v.data + static_cast<long>(y) * enlarge.v.p;
#pragma omp simd
    for (int k = 0; k < columns.count; ++k) {
      const int left = columns.left[k], right = columns.right[k];
      u[k] = fmaf(columns.fx[k], fromU[right] - fromU[left], fromU[left]);
      v[k] = fmaf(columns.fx[k], fromV[right] - fromV[left], fromV[left]);
    }
  }
};

TARVO_BAND void enlargeBand(Enlarge enlarge, int y0, int y1) {
  Columns columns;
  for (int x0 = 0; x0 < enlarge.w; x0 += kSide) {
    columns.set(enlarge, x0);
    Line lines[2];
    Line *above = &lines[0], *below = &lines[1];
    for (int y = y0; y < y1; ++y) {
      const device::BilinearPosition at(0.0f, static_cast<float>(y) / enlarge.factor, enlarge.u.h,
                                        enlarge.u.w);
      if (below->row == at.y0) std::swap(above, below);
      above->set(enlarge, columns, at.y0);
      below->set(enlarge, columns, at.y1);
      float* outU = enlarge.outU + static_cast<long>(y) * enlarge.p + x0;
      float* outV = enlarge.outV + static_cast<long>(y) * enlarge.p + x0;
#pragma omp simd
      for (int k = 0; k < columns.count; ++k) {
        outU[k] = fmaf(at.fy, below->u[k] - above->u[k], above->u[k]) * enlarge.factor;
        outV[k] = fmaf(at.fy, below->v[k] - above->v[k], above->v[k]) * enlarge.factor;
      }
    }
  }
}

}  // namespace

void enlargeOnCpu(const Enlarge& enlarge) {
  device::cpu::forBands(enlarge.h, enlarge.w, [&](int y0, int y1) { enlargeBand(enlarge, y0, y1); });
}

}  // namespace variational
