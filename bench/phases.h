#pragma once

#include <tarvo/matching.h>

#include <functional>
#include <string>
#include <vector>

#include "passes.h"

namespace bench {

/// Least work of a phase of one direction, in parts that differ in how much memory they touch.
///
/// Bytes: every plane that the phase needs is read once and every plane that it makes is written once; a
/// plane updated in place counts twice; what the phase keeps for itself counts nothing. Flops: the operations
/// of its formulas on 32-bit and 64-bit numbers as they are written, a fused multiply-add as two, root and
/// division as one each; minima, comparisons and conversions count nothing. Roots: the inverse square roots
/// in double precision among them, which take the processor many times longer.
struct Work {
  struct Part {
    double pixels;
    double bytes, flops, roots;
    double footprint;  ///< bytes touched
  };
  std::vector<Part> parts;

  /// All per pixel; moved and touched in floats.
  void add(double pixels, double moved, double flops, double roots, double touchedFloats);
  double pixels() const;
  double bytes() const;
  double flops() const;
  double roots() const;
  /// Seconds that the traffic takes at the bandwidth [GB/s] of each part's footprint.
  double memorySeconds(const std::function<double(double)>& bandwidth) const;

 private:
  double sum(double Part::*member) const;
};

/// Where a phase's time comes from.
enum class Source {
  Clock,  ///< the library's clock, over one direction
  Call,   ///< a call of the routine at full resolution
};

struct PhaseWork {
  std::string name;
  Source source;
  Work work;
};

/// The phases' names, in their order.
namespace phase {
inline constexpr const char* kTransfer = "transfer";
inline constexpr const char* kDescriptors = "descriptors";
inline constexpr const char* kConfidence = "confidence";
inline constexpr const char* kMatching = "matching";
inline constexpr const char* kPyramid = "pyramid";
inline constexpr const char* kWarp = "warp";
inline constexpr const char* kTensors = "tensors";
inline constexpr const char* kDiffusivity = "diffusivity";
inline constexpr const char* kAssembly = "assembly";
inline constexpr const char* kSolver = "solver";
}  // namespace phase

/// Work of every phase for pictures of this size. The counts are those of the pictures' matching.
std::vector<PhaseWork> phasesOf(int width, int height, const NMatching::Counts& counts);

/// What a solve reads of a pixel's couplings: all four, as gPCG, or, as the fixed-point step, two, the others
/// being those of the neighbours.
enum class Couplings { All, Once };

/// Floats per pixel that a solve of n iterations moves in the sweeps of the CPU device.
double solverFloats(int n, Couplings couplings);
/// Bytes that a solve touches: matrix 8 or 5, right-hand side 2, solution 2, three vectors of 2.
double solverFootprint(double pixels, Couplings couplings);

}  // namespace bench
