#include "device/cpu/form.h"
#include "device/launch.h"
#include "device/memory.h"
#include "variational/solver/relax_system_cpu.h"
#include "variational/solver/relax_system_kernels.h"
#include "variational/solver/solve_system.h"
#include "variational/solver/solvers_plain.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kSolvers;

}  // namespace

void variational::plainRelaxation(const FPtmp& fp, int h, int w, int p, int sweeps, float omega) {
  if (sweeps <= 0) return;
  launch(kernels::InvertBlocks{fp.matrix, h, w, p, omega});
  for (int half = 0; half < 2 * sweeps; ++half) {
    launch(kernels::RelaxColour{fp.matrix, fp.rhs, fp.increment, h, w, p, 1.0f - omega, half & 1, (w + 1) / 2,
                                h});
  }
}

void variational::relaxSystem(const FPtmp& fp, int h, int w, int p, int sweeps, float omega) {
  if (sweeps <= 0) return;
  const bool done = device::cpu::runs([&] {
    const CpuRelaxation system{fp.matrix, fp.rhs, fp.increment, h, w, p, omega};
    const RelaxationPlan plan = relaxationPlan(h, w, sweeps);
    device::Buffer scratch;
    TARVO_CALL(scratch.allocate(plan.scratchFloats));
    cpuRelax(system, sweeps, plan, scratch.get());
    TARVO_CALL(scratch.release());
  });
  if (!done) plainRelaxation(fp, h, w, p, sweeps, omega);
  TARVO_LAUNCHED("Relaxation");
}
