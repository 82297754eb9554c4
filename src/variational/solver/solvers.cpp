#include <tarvo/elementwise.h>
#include <tarvo/solvers.h>

#include <vector>

#include "device/launch.h"
#include "device/launch_dot.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "variational/solver/pcg_cpu.h"
#include "variational/solver/pcg_cuda.cuh"
#include "variational/solver/solve_system.h"
#include "variational/solver/solver_kernels.h"
#include "variational/solver/solvers_plain.h"
#include "variational/solver/uploaded_system.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kSolvers;

/// A whole solve in one launch.
void solveInOneLaunch(const float* matrix, const float* rhs, float* x, int h, int w, int p, int iterations,
                      const CGtmp& cg, kernels::SystemLayout layout) {
  const std::size_t segments = device::dotScratch(h, w);
  device::Buffer sums;
  TARVO_CALL(sums.allocate(2 * segments));
  const kernels::PersistentSolve solve{
      matrix, rhs, x, cg.r, cg.search, cg.q, sums.get(), sums.get() + segments, h, w, p, iterations, layout};
  launch(solve, [&] {
    const int rows = variational::cpuSolveRows(h, w);
    device::Buffer halo;
    TARVO_CALL(halo.allocate(static_cast<std::size_t>(variational::cpuHaloFloats(h, w, rows))));
    variational::cpuSolve(
        {matrix, rhs, x, cg.r, cg.search, cg.q, sums.get(), halo.get(), h, w, p, rows, layout}, iterations);
    TARVO_CALL(halo.release());
  });
  TARVO_CALL(sums.release());
}

/// In one launch where the device can and there is something to iterate, else by the plain kernels.
void solve(const float* matrix, const float* rhs, float* x, int h, int w, int p, int iterations,
           const CGtmp& cg, kernels::SystemLayout layout) {
  if (iterations > 0 && (!device::onCuda() || variational::cuda::solvesInOneLaunch())) {
    solveInOneLaunch(matrix, rhs, x, h, w, p, iterations, cg, layout);
  } else {
    variational::plainPCG(matrix, rhs, x, h, w, p, iterations, cg, layout);
  }
  TARVO_LAUNCHED("CG");
}

}  // namespace

void variational::plainPCG(const float* matrix, const float* rhs, float* x, int h, int w, int p,
                           int iterations, CGtmp cg, kernels::SystemLayout layout) {
  const std::size_t n = device::planeFloats(h, p, 2);
  const int plane = h * p;
  device::Buffer ownZ;
  if (cg.z == nullptr) {
    TARVO_CALL(ownZ.allocate(n));
    cg.z = ownZ.get();
  }
  for (float* vector : {cg.r, cg.z, cg.search, cg.q}) TARVO_CALL(device::clear(vector, n * sizeof(float)));
  launch(kernels::MatrixResidual{matrix, rhs, x, x + plane, h, w, p, cg.r, layout});
  launch(kernels::applyBlockJacobiPreconditioner_kernel{matrix, cg.r, cg.z, h, w, p, layout});
  TARVO_CALL(device::copyFloats(cg.search, cg.z, n, device::Direction::OnDevice));
  if (iterations <= 0) return;

  device::Buffer sums, scalars;
  TARVO_CALL(sums.allocate(device::dotScratch(h, w)));
  TARVO_CALL(scalars.allocate(1 + (sizeof(kernels::SolverState) + sizeof(float) - 1) / sizeof(float)));
  float* product = scalars.get();
  auto* state = reinterpret_cast<kernels::SolverState*>(scalars.get() + 1);

  launchDot({cg.r, cg.z, h, w, p, sums.get(), product});
  launch(kernels::BeginSolve{state, product});  // rz = r z
  // Floats moved per pixel and iteration with the couplings once: 9 + 4 + 17 + 4 + 6 = 40.
  for (int k = 0; k < iterations; ++k) {
    // q = A s
    launch(kernels::MatrixProduct{matrix, cg.search, cg.search + plane, h, w, p, cg.q, layout, layout.uv});
    // alpha = rz / (s q)
    launchDot({cg.search, cg.q, h, w, p, sums.get(), product});
    launch(kernels::SetAlpha{state, product});
    // x += alpha s, r -= alpha q, z = B^-1 r
    launch(kernels::StepAndPrecondition{matrix, state, x, cg.search, cg.r, cg.q, cg.z, h, w, p, layout});
    // beta = r z / rz, rz = r z
    launchDot({cg.r, cg.z, h, w, p, sums.get(), product});
    launch(kernels::SetBeta{state, product});
    // s = z + beta s
    launch(kernels::NextSearch{state, cg.search, cg.z, h, w, p});
  }
  TARVO_CALL(sums.release());
  TARVO_CALL(scalars.release());
  TARVO_CALL(ownZ.release());
}

void gPCG(const float* matrix, const float* rhs, float* du, float* /*dv*/, int h, int w, int p,
          int iterations, CGtmp cg) {
  solve(matrix, rhs, du, h, w, p, iterations, cg, kernels::SystemLayout::full(h * p));
}

void variational::solveSystem(const FPtmp& fp, int h, int w, int p, int iterations, const CGtmp& cg) {
  if (iterations <= 0) return;
  solve(fp.matrix, fp.rhs, fp.increment, h, w, p, iterations, cg, kernels::SystemLayout::once(h * p, p));
}

void computeResidual_opt_kernel(const float* matrix, const float* rhs, const float* du, const float* dv,
                                int h, int w, int p, float* r) {
  computeResidual_kernel(matrix, rhs, du, dv, h, w, p, r);
}

void computeResidual_kernel(const float* matrix, const float* rhs, const float* du, const float* dv, int h,
                            int w, int p, float* r) {
  launch(kernels::MatrixResidual{matrix, rhs, du, dv, h, w, p, r, kernels::SystemLayout::full(h * p)});
}

void mvm_opt_kernel(const float* matrix, const float* d1, const float* d2, int h, int w, int p, float* out) {
  const auto layout = kernels::SystemLayout::full(h * p);
  launch(kernels::MatrixProduct{matrix, d1, d2, h, w, p, out, layout, layout.uv});
}

void mvm_kernel(const float* matrix, const float* d1, const float* d2, int h, int w, int p, float* out) {
  const auto layout = kernels::SystemLayout::full(h * p);
  launch(kernels::MatrixProduct{matrix, d1, d2, h, w, p, out, layout, kMatrixVU * h * p});
}

void applyBlockJacobiPreconditioner_kernel(const float* matrix, const float* r, float* z, int h, int w,
                                           int p) {
  launch(kernels::applyBlockJacobiPreconditioner_kernel{matrix, r, z, h, w, p,
                                                        kernels::SystemLayout::full(h * p)});
}

void applyJacobiPreconditioner_kernel(const float* matrix, const float* r, float* z, int h, int w, int p) {
  launch(kernels::applyJacobiPreconditioner_kernel{matrix, r, z, h, w, p});
}

void applyRowScaling_kernel(float* matrix, float* rhs, float* s, int h, int w, int p) {
  launch(kernels::DiagonalRoots{matrix, s, h, w, p});  // all of them before a neighbour's entry changes
  launch(kernels::applyRowScaling_kernel{matrix, rhs, s, h, w, p});
}

void inverseScaling_kernel(const float* s, const float* y, float* x, int h, int w, int p) {
  launch(kernels::inverseScaling_kernel{s, y, x, h, w, p});
}

float gComputeResidual(const float* matrix, const float* rhs, const float* du, const float* dv, float* r,
                       int h, int w, int p) {
  computeResidual_kernel(matrix, rhs, du, dv, h, w, p, r);
  TARVO_LAUNCHED("Residual");
  std::vector<float> residual(2 * static_cast<std::size_t>(h) * static_cast<std::size_t>(w));
  TARVO_CALL(device::copyPlanes(residual.data(), w, r, p, h, w, 2, device::Direction::ToHost));
  float sum = 0.0f;
  for (const float value : residual) sum += value * value;
  return sum;
}

float computeResidual(const float* matrix, const float* rhs, const float* du, const float* dv, int h, int w) {
  const device::Entry entry;
  variational::UploadedSystem system(kUnit, matrix, rhs, du, dv, h, w);
  device::Buffer r;
  TARVO_CALL(r.allocate(device::planeFloats(h, system.pitch(), 2)));
  const float sum = gComputeResidual(system.matrix(), system.rhs(), system.du(), system.dv(), r.get(), h, w,
                                     system.pitch());
  TARVO_CALL(r.release());
  system.release();
  return sum;
}

void PCG(const float* matrix, const float* rhs, float* du, float* dv, int h, int w, int iterations) {
  const device::Entry entry;
  variational::UploadedSystem system(kUnit, matrix, rhs, du, dv, h, w);
  device::Buffer vectors[5];
  for (device::Buffer& vector : vectors) {
    TARVO_CALL(vector.allocate(device::planeFloats(h, system.pitch(), 2)));
  }
  const CGtmp cg{vectors[0].get(), vectors[1].get(), vectors[2].get(), vectors[3].get(), vectors[4].get()};

  timeval start, finish;
  gettimeofday(&start, nullptr);
  gPCG(system.matrix(), system.rhs(), system.du(), system.dv(), h, w, system.pitch(), iterations, cg);
  device::synchronize();
  TARVO_LAUNCHED("CG");
  gettimeofday(&finish, nullptr);
  report::print("Time= %f ms\n",
                static_cast<double>(static_cast<float>(device::milliseconds(start, finish))));

  system.download(du, dv);
  for (device::Buffer& vector : vectors) TARVO_CALL(vector.release());
  system.release();
}
