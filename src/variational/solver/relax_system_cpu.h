#pragma once

#include <cstddef>

namespace variational {

/// relaxSystem's form on the CPU device: the half-sweeps follow one another through the picture in a wave of
/// neighbouring rows, which stays in the caches. Leaves the matrix as it is. See relax_system_cpu.cpp.
struct CpuRelaxation {
  const float *matrix, *rhs;
  float* d;  ///< two-plane stack, in: start, out: improved solution
  int h, w, p;
  float omega;
};

/// How a solve is cut up; the results do not depend on it.
struct RelaxationPlan {
  int halfSweeps;  ///< half-sweeps of a wave; there are as many waves as it takes
  int bands;       ///< bands of rows that threads do side by side
  std::size_t scratchFloats;
};

RelaxationPlan relaxationPlan(int h, int w, int sweeps);

/// sweeps >= 1; scratch of plan.scratchFloats.
void cpuRelax(const CpuRelaxation& system, int sweeps, const RelaxationPlan& plan, float* scratch);

}  // namespace variational
