#include "workload.h"

#include <cmath>
#include <memory>
#include <stdexcept>
#include <utility>

#include "machine.h"
#include "passes.h"
#include "phases.h"
#include "synth/scene.h"

namespace bench {
namespace {

int shrunk(int side, float factor) {
  return static_cast<int>(std::ceil(factor * static_cast<float>(side)));
}

}  // namespace

Planes::Planes(int h, int w, int planes) : h_(h), w_(w), planes_(planes) {
  data_ = NDevice::allocatePlane(h, w, p_, planes);
  if (data_ == nullptr) throw std::bad_alloc();
  fill(0.0f);
}
Planes::Planes(Planes&& other) noexcept {
  *this = std::move(other);
}
Planes& Planes::operator=(Planes&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(h_, other.h_);
  std::swap(w_, other.w_);
  std::swap(p_, other.p_);
  std::swap(planes_, other.planes_);
  return *this;
}
Planes::~Planes() {
  NDevice::release(data_);
}
void Planes::fill(float value) {
  setValue_kernel(data_, planes_ * h_, w_, p_, value);
}
void Planes::upload(const float* host) {
  NDevice::upload(data_, host, h_, w_, p_, planes_);
}

Workload::Step::Step(int h, int w)
    : increment(h, w, 2),
      stData(h, w, 6),
      stGrad(h, w, 6),
      factors(h, w, 2),
      matchSums(h, w, 3),
      diff(h, w, 2),
      matrix(h, w, 12),
      rhs(h, w, 2) {}

FPtmp Workload::Step::view() const {
  return {increment.data(), stData.data(),      stGrad.data(),      factors.plane(0),
          factors.plane(1), matchSums.plane(0), matchSums.plane(1), matchSums.plane(2),
          diff.plane(0),    diff.plane(1),      matrix.data(),      rhs.data()};
}

Workload::Workload(int width, int height)
    : w_(width),
      h_(height),
      mask_{1.0f / 12, -8.0f / 12, 0.0f, 8.0f / 12, -1.0f / 12},
      image1_(height, width, kPictureChannels),
      image2_(height, width, kPictureChannels),
      flow_(height, width, 2),
      warped_(height, width, kPictureChannels),
      gconf_(height, width, 1),
      match_(height, width, 3),
      system_(height, width),
      out_(height, width, kPictureChannels),
      outFlow_(height, width, 2),
      vectors_(height, width, 10),
      histograms_(height, width, kHogBins),
      work_(height, width) {
  p_ = image1_.pitch();
  const Rendering scene = render(makeScene("demo", width, height, 1));
  hostImage_ = scene.frame1;
  image1_.upload(scene.frame1.data());
  image2_.upload(scene.frame2.data());

  // Every 16th pixel has a match, the true motion; the flow to improve is 0.9 of it.
  const int n = width * height;
  CTensor<float> match(width, height, 3);
  for (int i = 0; i < n; ++i) {
    match.data()[i] = scene.flow.data()[i];
    match.data()[i + n] = scene.flow.data()[i + n];
    match.data()[i + 2 * n] = i % 16 == 0 ? 1.0f : 0.0f;
  }
  match_.upload(match.data());
  flow_.upload(scene.flow.data());
  Scale_kernel(flow_.data(), 2 * h_, w_, p_, 0.9f);
  assemble();
}

void Workload::assemble() {
  const FPtmp s = system_.view();
  const float *u = flow_.plane(0), *v = flow_.plane(1);
  const float *du = system_.increment.plane(0), *dv = system_.increment.plane(1);
  gWarpMotion(warped_.data(), u, v, image2_.data(), image1_.data(), kPictureChannels, gconf_.data(), h_, w_,
              p_);
  MakeST(image1_.data(), warped_.data(), s.stData, s.stGrad, gconf_.data(), h_, w_, p_, kPictureChannels);
  gDiffusivity(u, v, du, dv, s.diffX, s.diffY, h_, w_, p_);
  DataFactor_kernel(s.stData, du, dv, s.dataFactor, h_, w_, p_);
  GradientFactor_kernel(s.stGrad, du, dv, s.gradFactor, h_, w_, p_, kGamma);
  MatchFactor_kernel(u, v, du, dv, match_.plane(0), match_.plane(1), match_.plane(2), s.matchWeight,
                     s.matchRhsU, s.matchRhsV, 1, h_, w_, p_, kBeta);
  MakeMatrix_kernel(s.matrix, s.rhs, s.dataFactor, s.gradFactor, s.matchWeight, s.stData, s.stGrad,
                    s.matchRhsU, s.matchRhsV, u, v, s.diffX, s.diffY, h_, w_, p_, kGamma, kAlpha);
}

CGtmp Workload::cg() const {
  return {vectors_.plane(0), vectors_.plane(2), vectors_.plane(4), vectors_.plane(6), vectors_.plane(8)};
}

/// Whether |r * z| is above the solver's bound, so that it has made all its iterations.
bool Workload::stillUnsolved() {
  const CGtmp work = cg();
  const FPtmp s = system_.view();
  computeResidual_kernel(s.matrix, s.rhs, work_.increment.plane(0), work_.increment.plane(1), h_, w_, p_,
                         work.r);
  applyBlockJacobiPreconditioner_kernel(s.matrix, work.r, work.z, h_, w_, p_);
  CTensor<float> r(w_, h_, 2), z(w_, h_, 2);
  NDevice::download(r.data(), work.r, h_, w_, p_, 2);
  NDevice::download(z.data(), work.z, h_, w_, p_, 2);
  double product = 0.0;
  for (int i = 0; i < r.size(); ++i) {
    product += static_cast<double>(r.data()[i]) * static_cast<double>(z.data()[i]);
  }
  return product >= 0.0001;
}

Case Workload::make(const std::string& name, double moved, double touched, std::function<void()> run) const {
  const double pixels = static_cast<double>(w_) * h_;
  return {format("%s/%dx%d", name.c_str(), w_, h_),
          pixels,
          4 * moved * pixels,
          4 * touched * pixels,
          std::move(run),
          nullptr,
          nullptr};
}

void Workload::addFilters(std::vector<Case>& cases) {
  const int size = static_cast<int>(mask_.size());
  cases.push_back(make("gConvolveX, 5 taps", 2, 2, [this, size] {
    gConvolveX(out_.data(), image1_.data(), h_, w_, p_, mask_.data(), size);
  }));
  cases.push_back(make("gConvolveY, 5 taps", 2, 2, [this, size] {
    gConvolveY(out_.data(), image1_.data(), h_, w_, p_, mask_.data(), size);
  }));
  cases.push_back(make("gGaussianFilter, sigma 4", 2, 2,
                       [this] { gGaussianFilter(out_.data(), image1_.data(), h_, w_, p_, 4.0f); }));
  // X and Y, each in place on three planes of the host.
  cases.push_back(make("recursiveSmoothX and Y, 3 channels", 12, 3, [this] {
    NFilter::recursiveSmoothX(hostOut_, 2.0f);
    NFilter::recursiveSmoothY(hostOut_, 2.0f);
  }));
  cases.back().prepare = [this] { hostOut_ = hostImage_; };
}

void Workload::addResampling(std::vector<Case>& cases) {
  for (const float factor : {kEta, 0.5f}) {
    const int outH = shrunk(h_, factor);
    const int outW = shrunk(w_, factor);
    const double floats = 1.0 + static_cast<double>(outH) * outW / (static_cast<double>(h_) * w_);
    auto small = std::make_shared<Planes>(outH, outW, 1);
    cases.push_back(make(
        format("downsample to %g", static_cast<double>(factor)), floats, floats, [this, outH, outW, small] {
          downsample(image1_.data(), h_, w_, p_, small->data(), outH, outW, small->pitch(), nullptr);
        }));
    if (factor != kEta) continue;
    cases.push_back(make("gInterpolate from 0.95", floats, floats, [this, outH, outW, small] {
      gInterpolate(out_.data(), h_, w_, p_, small->data(), outH, outW, small->pitch(), 1.0f / kEta);
    }));
  }
  // Flow 2, image 3 in; image 3 and validity 1 out.
  cases.push_back(make("gWarpMotion, 3 channels", 9, 9, [this] {
    gWarpMotion(out_.data(), flow_.plane(0), flow_.plane(1), image2_.data(), image1_.data(), kPictureChannels,
                work_.diff.data(), h_, w_, p_);
  }));
}

void Workload::addFixedPoint(std::vector<Case>& cases) {
  const FPtmp in = system_.view();
  const FPtmp out = work_.view();
  // Images 6 and validity 1 in, twelve tensor planes updated in place.
  cases.push_back(make("MakeST, 3 channels", 7 + 24, 7 + 12, [this, out] {
    MakeST(image1_.data(), warped_.data(), out.stData, out.stGrad, gconf_.data(), h_, w_, p_,
           kPictureChannels);
  }));
  cases.back().prepare = [this] {
    work_.stData.fill(0.0f);
    work_.stGrad.fill(0.0f);
  };
  cases.push_back(make(kDiffusivity, 6, 6, [this, out] {
    gDiffusivity(flow_.plane(0), flow_.plane(1), system_.increment.plane(0), system_.increment.plane(1),
                 out.diffX, out.diffY, h_, w_, p_);
  }));
  // Weights 3, tensors 10, match sums 2, flow 2, diffusivities 2 in; matrix 8, right-hand side 2 out.
  cases.push_back(make("MakeMatrix_kernel", 19 + 10, 19 + 10, [this, in, out] {
    MakeMatrix_kernel(out.matrix, out.rhs, in.dataFactor, in.gradFactor, in.matchWeight, in.stData, in.stGrad,
                      in.matchRhsU, in.matchRhsV, flow_.plane(0), flow_.plane(1), in.diffX, in.diffY, h_, w_,
                      p_, kGamma, kAlpha);
  }));
}

void Workload::addSolver(std::vector<Case>& cases) {
  constexpr int n = kSolverIterations;
  const FPtmp in = system_.view();
  cases.push_back(make(
      format("gPCG, per iteration of %d", n), solverFloats(n, Couplings::All), 8 + 2 + 2 + 6, [this, in] {
        gPCG(in.matrix, in.rhs, work_.increment.plane(0), work_.increment.plane(1), h_, w_, p_, n, cg());
      }));
  cases.back().pixels *= n;
  cases.back().prepare = [this] { work_.increment.fill(0.0f); };
  cases.back().valid = [this] { return stillUnsolved(); };

  // Tensors: images 6, validity 1 in, 12 out; the increment is cleared 2 and in the end added to the flow 6.
  const double tensors = 19 + 8;
  cases.push_back(makeStep(kTensorStep, 0, tensors, 7 + 12 + 4));
  // Each fixed-point iteration: flow and increment 4 in, diffusivities 2 out; tensors 12, flow and increment
  // 4, match field 3, diffusivities 2 in, matrix 5 and rhs 2 out; a solve.
  cases.push_back(makeStep(kWholeStep, kFixedPointIterations,
                           tensors + kFixedPointIterations * (6 + 28 + solverFloats(n, Couplings::Once)),
                           7 + 12 + 4 + 3 + 2 + 7 + 6));
}

Case Workload::makeStep(const char* name, int iterations, double moved, double touched) {
  Case step = make(name, moved, touched, [this, iterations] {
    gNonLinearIteration(image1_.data(), warped_.data(), gconf_.data(), match_.plane(0), match_.plane(1),
                        match_.plane(2), 1, outFlow_.plane(0), outFlow_.plane(1), h_, w_, p_,
                        kPictureChannels, kAlpha, kBeta, kGamma, iterations, kSolverIterations, 1.0f, cg(),
                        work_.view());
  });
  step.prepare = [this] {
    outFlow_.fill(0.0f);
    Add_kernel(outFlow_.data(), flow_.data(), 2 * h_, w_, p_);
  };
  return step;
}

void Workload::addMatching(std::vector<Case>& cases) {
  cases.push_back(make(
      "gComputeHOG, 3 channels", kPictureChannels + kHogBins, kPictureChannels + kHogBins,
      [this] { gComputeHOG(image1_.data(), histograms_.data(), kPictureChannels, kHogBins, h_, w_, p_); }));
  cases.push_back(
      make(std::string(kConfidence) + ", 3 channels", kPictureChannels + 1, kPictureChannels + 1,
           [this] { gComputeConfidence(image1_.data(), work_.diff.data(), h_, w_, p_, kPictureChannels); }));
}

std::vector<Case> Workload::cases() {
  std::vector<Case> cases;
  addFilters(cases);
  addMatching(cases);
  addResampling(cases);
  addFixedPoint(cases);
  addSolver(cases);
  return cases;
}

namespace {

std::string sizeText(double bytes) {
  return bytes < 1e6 ? format("%.0f kB", bytes / 1e3) : format("%.0f MB", bytes / 1e6);
}

}  // namespace

const Case& find(const std::vector<Case>& cases, const std::string& name) {
  for (const Case& work : cases) {
    if (work.name.compare(0, name.size(), name) == 0) return work;
  }
  throw std::logic_error("no case " + name);
}

Case teamTriad(double footprint) {
  constexpr int kWidth = 640;
  const int rows = static_cast<int>(footprint / (2 * sizeof(float) * kWidth));
  auto a = std::make_shared<Planes>(rows, kWidth, 1);
  auto b = std::make_shared<Planes>(rows, kWidth, 1);
  b->fill(1.0f);
  const double pixels = static_cast<double>(rows) * kWidth;
  const auto run = [a, b, rows] {
    Scale_and_Add_kernel(a->data(), b->data(), 0.5f, rows, kWidth, a->pitch());
  };
  return {"triad a = a s + b, Scale_and_Add_kernel/" + sizeText(8 * pixels),
          pixels,
          12 * pixels,
          8 * pixels,
          run,
          nullptr,
          nullptr};
}

Case plainTriad(double footprint) {
  const auto n = static_cast<std::size_t>(footprint / (3 * sizeof(float)));
  auto data = std::make_shared<std::vector<float>>(3 * n, 1.0f);
  const double pixels = static_cast<double>(n);
  const auto run = [data, n] {
    float* a = data->data();
    const float *b = a + n, *c = b + n;
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) a[i] = b[i] + c[i] * 0.5f;
  };
  return {"triad a = b + c s, plain loop, 1 thread/" + sizeText(12 * pixels),
          pixels,
          12 * pixels,
          12 * pixels,
          run,
          nullptr,
          nullptr};
}

}  // namespace bench
