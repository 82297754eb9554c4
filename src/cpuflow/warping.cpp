#include <tarvo/CFilter.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/NFilter.h>
#include <tarvo/exceptions.h>
#include <tarvo/timers.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "device/device.h"
#include "device/report.h"
#include "variational/flow/arguments.h"
#include "variational/flow/levels.h"

// The coarse-to-fine scheme on the host.

namespace {

using variational::kFinalPasses;

constexpr double kTicksPerSecond = 1000000.0;  // of the processor clock

/// The pixel left of and above a position, and the position's distance from it.
struct Cell {
  int x, y;
  float dx, dy;
};

/// False where the position (px, py), truncated towards zero, or its right or lower neighbour lies outside a
/// w x h picture, or is not a number. Positions between -1 and 0 count as inside, with a negative distance.
bool cellAt(float px, float py, int w, int h, Cell& cell) {
  if (!(px > -1.0f && px < static_cast<float>(w) && py > -1.0f && py < static_cast<float>(h))) return false;
  cell.x = static_cast<int>(px);
  cell.y = static_cast<int>(py);
  if (cell.x + 1 >= w || cell.y + 1 >= h) return false;
  cell.dx = px - static_cast<float>(cell.x);
  cell.dy = py - static_cast<float>(cell.y);
  return true;
}

/// Bilinear value in plane z; weights and sums in double precision, each of the three blends rounded.
float sample(const CTensor<float>& image, const Cell& cell, int z) {
  const auto blend = [](float first, float second, float share) {
    return static_cast<float>(static_cast<double>(first) * (1.0 - static_cast<double>(share)) +
                              static_cast<double>(second) * static_cast<double>(share));
  };
  const float* at = &image(cell.x, cell.y, z);
  const int row = image.sizeX();
  return blend(blend(at[0], at[1], cell.dx), blend(at[row], at[row + 1], cell.dx), cell.dy);
}

/// One pass of the scheme.
struct Pass {
  int index;    ///< from the number of scales down to -kFinalPasses
  int clamped;  ///< not below 0
  int w, h;
  int coarserW, coarserH;

  bool skipped() const { return w == coarserW && h == coarserH; }
};

int scaled(int size, double eta, int level) {
  return static_cast<int>(std::ceil(std::pow(eta, level) * size));
}

Pass passOf(int index, int width, int height, double eta) {
  const int l = index > 0 ? index : 0;
  return {index,
          l,
          scaled(width, eta, l),
          scaled(height, eta, l),
          scaled(width, eta, l + 1),
          scaled(height, eta, l + 1)};
}

/// Levels above the full resolution.
int scalesOf(int width, int height, double eta) {
  const float ratio = variational::kLeastSide / static_cast<float>(width < height ? width : height);
  const double scales = std::log(static_cast<double>(ratio)) / std::log(eta);
  return scales > 0.0 && std::isfinite(scales) ? static_cast<int>(scales) : 0;
}

void scalePlane(CTensor<float>& tensor, int plane, float factor) {
  const int n = tensor.sizeX() * tensor.sizeY();
  float* values = tensor.data() + static_cast<std::ptrdiff_t>(plane) * n;
  for (int i = 0; i < n; ++i) values[i] *= factor;
}

float quotient(int a, int b) {
  return static_cast<float>(a) / static_cast<float>(b);
}

CTensor<float> firstPlanes(const CTensor<float>& tensor, int planes) {
  if (tensor.sizeZ() == planes) return tensor;
  CTensor<float> part(tensor.sizeX(), tensor.sizeY(), planes);
  std::copy_n(tensor.data(), part.size(), part.data());
  return part;
}

/// Copies of the pictures and the match field in the size of a pass.
struct LevelData {
  CTensor<float> image1, image2, matchU, matchV, matchWeight;
  CMatrix<float> extraTerm;

  LevelData(const CTensor<float>& first, const CTensor<float>& second, const CTensor<float>& u,
            const CTensor<float>& v, const CTensor<float>& weight, const CMatrix<float>* extra)
      : image1(first),
        image2(second),
        matchU(u),
        matchV(firstPlanes(v, u.sizeZ())),
        matchWeight(firstPlanes(weight, u.sizeZ())) {
    if (extra != nullptr) extraTerm = *extra;
  }
  void reduce(const Pass& pass) {
    const int width = image1.sizeX(), height = image1.sizeY();
    image1.downsample(pass.w, pass.h);
    image2.downsample(pass.w, pass.h);
    if (extraTerm.data() != nullptr) extraTerm.downsample(pass.w, pass.h);
    matchU.downsample(pass.w, pass.h, matchWeight);
    matchV.downsample(pass.w, pass.h, matchWeight);
    matchWeight.downsample(pass.w, pass.h, matchWeight);
    for (int m = 0; m < matchU.sizeZ(); ++m) scalePlane(matchU, m, quotient(pass.w, width));
    for (int m = 0; m < matchV.sizeZ(); ++m) scalePlane(matchV, m, quotient(pass.h, height));
  }
};

/// The second picture seen from the first along the flow. Where the flow leaves it, the first picture's own
/// value, and `valid` becomes 0.
CTensor<float> warpedPicture(const LevelData& level, const CTensor<float>& flow, CMatrix<float>& valid) {
  CTensor<float> warped(level.image1);
  for (int y = 0; y < valid.sizeY(); ++y) {
    for (int x = 0; x < valid.sizeX(); ++x) {
      Cell cell;
      if (cellAt(static_cast<float>(x) + flow(x, y, 0), static_cast<float>(y) + flow(x, y, 1), valid.sizeX(),
                 valid.sizeY(), cell)) {
        for (int k = 0; k < warped.sizeZ(); ++k) warped(x, y, k) = sample(level.image2, cell, k);
      } else {
        valid(x, y) = 0.0f;
      }
    }
  }
  return warped;
}

/// Brings the flow of the next coarser size to the size of a pass.
void carryFlow(CTensor<float>& flow, const Pass& pass) {
  flow.upsampleBilinear(pass.w, pass.h);
  scalePlane(flow, 0, quotient(pass.w, pass.coarserW));
  scalePlane(flow, 1, quotient(pass.h, pass.coarserH));
}

void smoothPicture(CTensor<float>& image, float sigma) {
  const CSmooth<float> mask(sigma, 3);
  CTensor<float> across(image.sizeX(), image.sizeY(), image.sizeZ());
  NFilter::filter(image, across, mask, 1, 1);
  NFilter::filter(across, image, 1, mask, 1);
}

void requireSameSizes(const CTensor<float>& a, const CTensor<float>& b, int planes) {
  if (a.sizeX() != b.sizeX() || a.sizeY() != b.sizeY() || b.sizeZ() < planes) {
    throw ETensorIncompatibleSize(a.sizeX(), a.sizeY(), b.sizeX(), b.sizeY());
  }
}

template <class Value>
void requireSameSizes(const CTensor<float>& a, const CMatrix<Value>& b) {
  if (a.sizeX() != b.sizeX() || a.sizeY() != b.sizeY()) {
    throw ETensorIncompatibleSize(a.sizeX(), a.sizeY(), b.sizeX(), b.sizeY());
  }
}

template <class Value>
void require(bool good, const char* name, const char* must, Value value) {
  if (good) return;
  std::ostringstream text;
  text << "warpingGeometric: " << name << " must be " << must << ", got " << value;
  throw std::invalid_argument(text.str());
}

}  // namespace

void COpticFlow::warp(const CTensor<float>& image, CTensor<float>& warped, CMatrix<bool>& outside,
                      CTensor<float>& flow) {
  requireSameSizes(image, warped, image.sizeZ());
  requireSameSizes(image, flow, 2);
  requireSameSizes(image, outside);
  for (int y = 0; y < image.sizeY(); ++y) {
    for (int x = 0; x < image.sizeX(); ++x) {
      Cell cell;
      outside(x, y) = !cellAt(static_cast<float>(x) + flow(x, y, 0), static_cast<float>(y) + flow(x, y, 1),
                              image.sizeX(), image.sizeY(), cell);
      if (outside(x, y)) continue;
      for (int k = 0; k < image.sizeZ(); ++k) warped(x, y, k) = sample(image, cell, k);
    }
  }
}

void COpticFlow::warpingGeometric(CTensor<float> image1, CTensor<float> image2, CTensor<float>& flow,
                                  CTensor<float>& matchU, CTensor<float>& matchV, CTensor<float>& matchWeight,
                                  CMatrix<float>* extraTerm, float sigma, float alpha, float beta,
                                  float gamma, float extraWeight, float eta, int fixedPointIterations,
                                  int solverIterations, float omega) {
  requireSameSizes(image1, image2, image1.sizeZ());
  for (CTensor<float>* match : {&matchU, &matchV, &matchWeight}) {
    requireSameSizes(image1, *match, matchU.sizeZ());
  }
  if (extraTerm != nullptr) requireSameSizes(image1, *extraTerm);
  require(image1.size() > 0, "image1", "at least 1 x 1 x 1", image1.size());
  variational::checkPlane("warpingGeometric", "image1", image1.sizeY(), image1.sizeX());
  require(eta > 0.0f && eta <= 1.0f, "eta", "greater than 0 and at most 1", eta);
  require(solverIterations <= INT_MAX / 2, "solverIterations", "less than 2^30", solverIterations);
  const device::Entry entry;
  const int width = image1.sizeX(), height = image1.sizeY();
  const int scales = scalesOf(width, height, static_cast<double>(eta));
  report::print("# scales = %d\n", scales);
  if (sigma > 0.0f) {
    smoothPicture(image1, sigma);
    smoothPicture(image2, sigma);
  }
  CTensor<float> current(width, height, 2, 0.0f);  // the caller's stays as it is if something fails

  for (int index = scales; index >= -kFinalPasses; --index) {
    const Pass pass = passOf(index, width, height, static_cast<double>(eta));
    if (!pass.skipped()) {
      LevelData level(image1, image2, matchU, matchV, matchWeight, extraTerm);
      if (index >= 1) level.reduce(pass);
      if (pass.clamped == scales && index >= 1) current = CTensor<float>(pass.w, pass.h, 2, 0.0f);
      if (pass.clamped < scales && index >= 0) carryFlow(current, pass);
      CMatrix<float> valid(pass.w, pass.h, 1.0f);
      CTensor<float> warped = pass.clamped == scales ? level.image2 : warpedPicture(level, current, valid);
      if (index < 0) level.matchWeight = CTensor<float>(pass.w, pass.h, matchU.sizeZ(), 0.0f);
      const auto levelGamma =
          static_cast<float>(static_cast<double>(gamma) * std::pow(static_cast<double>(eta), pass.clamped));
      const int sweeps = index < 0 && solverIterations > 0 ? 2 * solverIterations : solverIterations;
      nonlinearIteration(level.image1, warped, valid, level.matchU, level.matchV, level.matchWeight, current,
                         extraTerm != nullptr ? &level.extraTerm : nullptr, alpha, beta, levelGamma,
                         extraWeight, fixedPointIterations, sweeps, omega, pass.clamped);
    }
    report::progress(scales - index + 1, scales + 1 + kFinalPasses);
  }
  flow = std::move(current);
  report::print("time in matrix setup = %lf\n", setup_time / kTicksPerSecond);
  report::print("time in matrix solve = %lf\n", sortimer / kTicksPerSecond);
}
