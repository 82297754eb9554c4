#pragma once

namespace bench {

/// What the processor's arithmetic can give, measured with nothing but registers in use; in 1e9 per second.
struct ArithmeticPeak {
  double flops;  ///< 32-bit multiply-adds, each counted as two
  double roots;  ///< 64-bit inverse square roots: a root and a division each
};

/// Both, on `threads` threads at once.
ArithmeticPeak measurePeak(int threads);

/// Lanes of 32 bits in the vectors that measurePeak() uses, and whether it has fused multiply-adds.
struct VectorUnit {
  int lanes;
  bool fused;
};
VectorUnit vectorUnit();

/// Clock while computing [GHz]: a chain of dependent additions makes one step in each cycle.
double clockRate();

}  // namespace bench
