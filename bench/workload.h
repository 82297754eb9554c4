#pragma once

#include <tarvo/tarvo.h>

#include <functional>
#include <string>
#include <vector>

#include "passes.h"

namespace bench {

/// Stacked device planes of one size and pitch.
class Planes {
 public:
  Planes() = default;
  Planes(int h, int w, int planes);
  Planes(Planes&& other) noexcept;
  Planes& operator=(Planes&& other) noexcept;
  ~Planes();

  float* plane(int k) const { return data_ + static_cast<long>(k) * h_ * p_; }
  float* data() const { return data_; }
  int pitch() const { return p_; }
  void fill(float value);
  void upload(const float* host);

 private:
  float* data_ = nullptr;
  int h_ = 0, w_ = 0, p_ = 0, planes_ = 0;
};

/// One thing to measure.
struct Case {
  std::string name;
  double pixels;     ///< per call; of a solve: times its iterations
  double bytes;      ///< least traffic of a call: every plane read once and written once
  double footprint;  ///< bytes that a call touches
  std::function<void()> run;
  std::function<void()> prepare;  ///< before each call, not timed; may be empty
  std::function<bool()> valid;    ///< afterwards: whether the calls did all the work; may be empty
};

/// The data of one pyramid level of a rendered scene: images, a flow near the true one, and all that the
/// fixed-point step makes of them.
class Workload {
 public:
  Workload(int width, int height);

  /// Everything to measure on it. The cases refer to this object.
  std::vector<Case> cases();

 private:
  /// Planes of a fixed-point step.
  struct Step {
    Step(int h, int w);
    FPtmp view() const;
    Planes increment, stData, stGrad, factors, matchSums, diff, matrix, rhs;
  };

  void assemble();
  bool stillUnsolved();
  void addFilters(std::vector<Case>& cases);
  void addResampling(std::vector<Case>& cases);
  void addFixedPoint(std::vector<Case>& cases);
  void addSolver(std::vector<Case>& cases);
  void addMatching(std::vector<Case>& cases);
  /// A whole fixed-point step.
  Case makeStep(const char* name, int iterations, double moved, double touched);
  /// A case by the floats per pixel that it moves and touches.
  Case make(const std::string& name, double moved, double touched, std::function<void()> run) const;
  CGtmp cg() const;

  int w_, h_, p_;
  CTensor<float> hostImage_, hostOut_;
  std::vector<float> mask_;
  Planes image1_, image2_, flow_, warped_, gconf_, match_;  // input, as system_
  Step system_;
  Planes out_, outFlow_, vectors_, histograms_;  // what the cases write, as work_
  Step work_;
};

/// How the names of some cases begin.
inline constexpr const char* kConfidence = "gComputeConfidence";
inline constexpr const char* kDiffusivity = "gDiffusivity";
inline constexpr const char* kTensorStep = "gNonLinearIteration, 0 x 0";
inline constexpr const char* kWholeStep = "gNonLinearIteration, 5 x 10";
static_assert(kFixedPointIterations == 5 && kSolverIterations == 10, "the name says so");

/// The first case whose name begins so; throws std::logic_error if there is none.
const Case& find(const std::vector<Case>& cases, const std::string& name);

/// Team triad a = a * s + b over two arrays of `footprint` bytes together: the memory bandwidth that kernels
/// of this footprint can reach.
Case teamTriad(double footprint);
/// The same on one thread of this program: a = b + c * s over three arrays.
Case plainTriad(double footprint);

}  // namespace bench
