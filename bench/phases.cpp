#include "phases.h"

#include <tarvo/hog.h>

#include <algorithm>

namespace bench {

void Work::add(double pixels, double moved, double flops, double roots, double touchedFloats) {
  parts.push_back({pixels, 4 * moved * pixels, flops * pixels, roots * pixels, 4 * touchedFloats * pixels});
}
double Work::sum(double Part::*member) const {
  double total = 0.0;
  for (const Part& part : parts) total += part.*member;
  return total;
}
double Work::pixels() const {
  return sum(&Part::pixels);
}
double Work::bytes() const {
  return sum(&Part::bytes);
}
double Work::flops() const {
  return sum(&Part::flops);
}
double Work::roots() const {
  return sum(&Part::roots);
}
double Work::memorySeconds(const std::function<double(double)>& bandwidth) const {
  double seconds = 0.0;
  for (const Part& part : parts) seconds += 1e-9 * part.bytes / bandwidth(part.footprint);
  return seconds;
}

double solverFloats(int n, Couplings couplings) {
  // Search direction s, solution x, matrix: three entries of the block and the couplings. The start reads x
  // 2, rhs 2, matrix (of four couplings also the other copy of the mixed entry) and writes r 2, s 2; the
  // product reads s 2, matrix and writes q 2, and from the second iteration on updates x 2 and s 2 in the
  // same sweep, for which it also reads r 2; in all but the last iteration r 2 is updated from q 2 and matrix
  // 3; the end updates x 2 from s 2.
  const bool all = couplings == Couplings::All;
  const double matrix = all ? 7 : 5;
  const double product = matrix + 4;
  return (8 + matrix + (all ? 1 : 0)) + product + (n - 1) * (product + 8 + 9) + 6;
}
double solverFootprint(double pixels, Couplings couplings) {
  return 4.0 * ((couplings == Couplings::All ? 8 : 5) + 2 + 2 + 6) * pixels;
}

namespace {

constexpr double kBins = kHogBins;

/// Mean number of candidates in the search window of a grid point along a side.
double meanWindow(int side) {
  using NMatching::kMargin, NMatching::kRadius, NMatching::kSpacing;
  double sum = 0.0, points = 0.0;
  for (int x = kMargin; x < side - kMargin; x += kSpacing, points += 1.0) {
    sum += std::min(x + kRadius, side - 1 - kMargin) - std::max(kMargin, x - kRadius) + 1;
  }
  return points > 0.0 ? sum / points : 0.0;
}

// Once in a direction. Pictures are three planes.

/// Pictures 6 in and out, flow 2 in and out.
Work transfer(double pixels) {
  Work work;
  work.add(pixels, 16, 0, 0, 16);
  return work;
}

/// Each of the two pictures, per pixel of it: picture 3 in, histograms 15 out. Per channel two derivatives of
/// 3 taps 12, magnitude 4, its sector by 15 borders 60, sum 1; then smoothing over the sectors 5 and two
/// means of 7 taps 28 for each of 15.
Work descriptors(double pixels) {
  Work work;
  for (int k = 0; k < 2; ++k) work.add(pixels, 3 + kBins, 3 * 77 + 33 * kBins, 0, 3 + kBins);
  return work;
}

/// Picture 3 in, one plane out. Six derivatives of 3 taps 36, tensor 18, magnitude 2, smoothing of three
/// planes with 25 taps along x and y 300, eigenvalue and product 10.
Work confidence(double pixels) {
  Work work;
  work.add(pixels, 4, 366, 0, 4);
  return work;
}

/// Pictures 6, histograms 30, confidence 1 in, match field 3 out. Two energies 28; then for every candidate
/// of a searched point, forward and backward, the colour difference 8. The distances of the candidates that
/// pass are not counted, since their number depends on the pictures.
Work matching(int width, int height, const NMatching::Counts& counts) {
  Work work;
  const double pixels = static_cast<double>(width) * height;
  const double searches = static_cast<double>(counts.gatedPoints) + counts.forwardMatches;
  work.add(pixels, 40, 28 + 8 * searches * meanWindow(width) * meanWindow(height) / pixels, 0, 40);
  return work;
}

// In every pass.

/// Levels above full resolution, per pixel of the full picture: pictures 6 and match field 3 in, once for all
/// levels, their shrunk planes out. A sample is multiplied with its area (3 for the area, 2), a match sample
/// with area and weight (3 + 4); a target pixel takes a division per plane.
Work pyramid(int width, int height, const std::vector<Pass>& passes) {
  Work work;
  const double pixels = static_cast<double>(width) * height;
  double in = 9;
  for (const Pass& pass : passes) {
    if (pass.index <= 0) continue;
    const double share = pass.pixels() / pixels;
    work.add(pixels, in + 9 * share, 6 * 5 + 3 * 7 + 9 * share, 0, in + 9 * share);
    in = 0;
  }
  return work;
}

/// Flow of the last level 2 in, enlarged flow 2 out (positions 2, bilinear 11, factor 1, for each plane) up
/// to full resolution; flow 2, picture 3 in, warped picture 3, validity 1 out (positions 2, bilinear 2 + 9
/// for each plane). The first pass has neither.
Work warp(const std::vector<Pass>& passes) {
  Work work;
  for (std::size_t k = 1; k < passes.size(); ++k) {
    const double pixels = passes[k].pixels();
    const double coarser = passes[k - 1].pixels() / pixels;
    const bool enlarged = passes[k].index >= 0;
    work.add(pixels, 9 + (enlarged ? 2 + 2 * coarser : 0), 31 + (enlarged ? 28 : 0), 0, 9 + 2);
  }
  return work;
}

// A call at full resolution.

/// Pictures 6, validity 1 in, two tensors 12 out; besides, the increment is cleared 2 and added to the
/// flow 6. Per channel two derivatives of 5 taps 20, difference 1, five second derivatives 50, brightness
/// tensor 21, gradient tensor 49; three inverse roots.
Work tensors(double pixels) {
  Work work;
  work.add(pixels, 7 + 12 + 8, 3 * 141 + 2, 9, 7 + 12 + 4);
  return work;
}

/// Flow and increment 4 in, two diffusivities out. For each component the total flow at eight pixels 8, four
/// central differences 24, their means 4, differences 2, squares and sums 8; one inverse root in each
/// direction 6.
Work diffusivity(double pixels) {
  Work work;
  work.add(pixels, 6, 2 * 46 + 6, 2, 6);
  return work;
}

/// Tensors 12, flow and increment 4, match field 3, diffusivities 2 in, matrix 5 and right-hand side 2 out.
/// Two tensor weights 34, match 18, block and right-hand side 19, four neighbours 36; three inverse roots.
Work assembly(double pixels) {
  Work work;
  work.add(pixels, 28, 107, 3, 28);
  return work;
}

/// Every solve of every pass with all its iterations, per pixel and iteration; some solves of the smallest
/// levels stop early, which changes the sum by less than a hundredth. The start 39, the product 26 for each,
/// new search direction, solution and residual 38 for all but one, the end 4.
Work solver(const std::vector<Pass>& passes) {
  Work work;
  for (const Pass& pass : passes) {
    const int n = pass.solverIterations();
    const double flops = 39 + 26.0 * n + 38.0 * (n - 1) + 4;
    for (int k = 0; k < kFixedPointIterations; ++k) {
      work.add(n * pass.pixels(), solverFloats(n, Couplings::Once) / n, flops / n, 0, 0);
      work.parts.back().footprint = solverFootprint(pass.pixels(), Couplings::Once);
    }
  }
  return work;
}

}  // namespace

std::vector<PhaseWork> phasesOf(int width, int height, const NMatching::Counts& counts) {
  const double pixels = static_cast<double>(width) * height;
  const std::vector<Pass> passes = passesOf(width, height);
  return {{phase::kTransfer, Source::Clock, transfer(pixels)},
          {phase::kDescriptors, Source::Clock, descriptors(pixels)},
          {phase::kConfidence, Source::Call, confidence(pixels)},
          {phase::kMatching, Source::Clock, matching(width, height, counts)},
          {phase::kPyramid, Source::Clock, pyramid(width, height, passes)},
          {phase::kWarp, Source::Clock, warp(passes)},
          {phase::kTensors, Source::Call, tensors(pixels)},
          {phase::kDiffusivity, Source::Call, diffusivity(pixels)},
          {phase::kAssembly, Source::Call, assembly(pixels)},
          {phase::kSolver, Source::Clock, solver(passes)}};
}

}  // namespace bench
