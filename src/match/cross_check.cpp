#include "match/cross_check.h"

#include <tarvo/hog.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <vector>

#include "device/report.h"
#include "match/match_steps.h"

namespace match {
namespace {

constexpr int kPrintedPoints = 10;
constexpr double kWeightTolerance = 0.001;

using match::Window;

/// One picture as the searches read it: histograms pixel by pixel.
class Picture {
 public:
  Picture(const CTensor<float>& image, const CTensor<float>& hog, const CMatrix<float>& energy)
      : image_(image), energy_(energy), pixels_(static_cast<std::size_t>(hog.size())) {
    float* to = pixels_.data();
    for (int y = 0; y < hog.sizeY(); ++y) {
      for (int x = 0; x < hog.sizeX(); ++x) {
        for (int b = 0; b < kHogBins; ++b) *to++ = hog(x, y, b);
      }
    }
  }
  int w() const { return image_.sizeX(); }
  int h() const { return image_.sizeY(); }
  float energy(int x, int y) const { return energy_(x, y); }
  float colour(int x, int y, int c) const { return image_(x, y, c); }
  const float* energyAt(int x, int y) const { return &energy_(x, y); }
  const float* colourAt(int x, int y, int c) const { return &image_(x, y, c); }
  /// The 15 bins of cell k of the descriptor of (x, y).
  const float* cell(int x, int y, int k) const {
    const int column = x + match::cellColumn(k), row = y + match::cellRow(k);
    return pixels_.data() + (static_cast<std::ptrdiff_t>(row) * w() + column) * kHogBins;
  }

 private:
  const CTensor<float>& image_;
  const CMatrix<float>& energy_;
  std::vector<float> pixels_;
};

struct Found {
  float distance = match::kRejected;
  int x = 0, y = 0;
};

/// The nearest and second nearest candidate, in the order of the visit.
struct Nearest {
  Found best, second;

  void add(const Found& candidate) {
    if (best.distance > candidate.distance) {
      second = best;
      best = candidate;
    } else if (second.distance > candidate.distance) {
      second = candidate;
    }
  }
};

/// The search of point (ax, ay) of picture A in picture B.
class Search {
 public:
  Search(const Picture& a, const Picture& b, int ax, int ay) : a_(a), b_(b), ax_(ax), ay_(ay) {}

  Nearest run(const Window& window) {
    for (int y = window.y0; y <= window.y1 && window.x0 <= window.x1; ++y) {
      acceptRow(window.x0, window.x1, y);
      for (int x = window.x0; x <= window.x1; ++x) {
        if (accepted_[x - window.x0] != 0) group_[count_++] = {0.0f, x, y};
        if (count_ == kGroup) measure();
      }
    }
    measure();
    return nearest_;
  }

 private:
  static constexpr int kGroup = 8;  // candidates whose distances are added up side by side

  /// accepted_[x - x0] of columns x0 ... x1: 1 where neither energy nor colour rejects.
  void acceptRow(int x0, int x1, int y) {
    const float own = a_.energy(ax_, ay_);
    const float red = a_.colour(ax_, ay_, 0), green = a_.colour(ax_, ay_, 1), blue = a_.colour(ax_, ay_, 2);
    const float *energy = b_.energyAt(x0, y), *reds = b_.colourAt(x0, y, 0), *greens = b_.colourAt(x0, y, 1),
                *blues = b_.colourAt(x0, y, 2);
    const int count = x1 + 1 - x0;
#pragma omp simd
    for (int i = 0; i < count; ++i) {
      const float d0 = red - reds[i], d1 = green - greens[i], d2 = blue - blues[i];
      const float colours = d0 * d0 + d1 * d1 + d2 * d2;
      const bool rejected =
          (energy[i] > own + own) | (own > energy[i] + energy[i]) | (colours > match::kColourThreshold);
      accepted_[i] = rejected ? 0 : 1;
    }
  }

  /// Distances of the group, each cell by cell and within a cell bin by bin. Given up once all of them have
  /// reached the second distance, since none can change anything then.
  void measure() {
    for (int c = count_; c < kGroup; ++c) group_[c] = group_[0];
    float sums[kGroup] = {};
    for (int k = 0; k < match::kCells && count_ > 0; ++k) {
      const float* own = a_.cell(ax_, ay_, k);
      const float* others[kGroup];
      for (int c = 0; c < kGroup; ++c) others[c] = b_.cell(group_[c].x, group_[c].y, k);
      for (int b = 0; b < kHogBins; ++b) {
        for (int c = 0; c < kGroup; ++c) {
          const float d = own[b] - others[c][b];
          sums[c] += d * d;
        }
      }
      const float limit = nearest_.second.distance;
      if (std::all_of(sums, sums + kGroup, [=](float sum) { return sum >= limit; })) break;
    }
    for (int c = 0; c < count_; ++c) nearest_.add({sums[c], group_[c].x, group_[c].y});
    count_ = 0;
  }

  const Picture &a_, &b_;
  int ax_, ay_;
  Nearest nearest_;
  int accepted_[match::kMostColumns];
  Found group_[kGroup];
  int count_ = 0;
};

/// The match field at a pixel.
struct Match {
  float u, v, weight;
};

void compare(int x, int y, const Nearest& forward, const Found& back, const Match& match) {
  const int fx = forward.best.x, fy = forward.best.y;
  if (match.u != static_cast<float>(fx - x)) {
    report::print("Error U %d %d : %d %d %d %d %f %d %d\n", x, y, fx, x, back.x, fx - x,
                  static_cast<double>(match.u), forward.second.x, forward.second.y);
  }
  if (match.v != static_cast<float>(fy - y)) {
    report::print("Error V %d %d : %d %d %d %f\n", x, y, fy, y, fy - y, static_cast<double>(match.v));
  }
  const double d1 = static_cast<double>(forward.best.distance);
  const double d2 = static_cast<double>(forward.second.distance);
  const double expected = (d2 - d1) / (d1 + match::kWeightRegulariser);
  const double weight = static_cast<double>(match.weight);
  if (std::fabs(weight - expected) > kWeightTolerance) {
    report::print("Error W %d %d : %f %f %f %f\n", x, y, weight, expected, d1, d2);
  }
}

CMatrix<float> energyOf(const CTensor<float>& hog) {
  CMatrix<float> energy(hog.sizeX(), hog.sizeY(), 0.0f);
  for (int b = 0; b < hog.sizeZ(); ++b) {
    const float* plane = &hog(0, 0, b);
    for (int i = 0; i < energy.size(); ++i) energy.data()[i] += plane[i];
  }
  return energy;
}

CTensor<float> histogramsOf(const CTensor<float>& image) {
  CTensor<float> hog;
  computeHOG(image, hog);
  return hog;
}

}  // namespace

HostFeatures::HostFeatures(const CTensor<float>& first, const CTensor<float>& second)
    : image1(first),
      image2(second),
      hog1(histogramsOf(first)),
      hog2(histogramsOf(second)),
      energy1(energyOf(hog1)),
      energy2(energyOf(hog2)),
      meanConfidence(0.0f) {
  computeConfidence(first, second, confidence);
  float sum = 0.0f;
  for (int i = 0; i < confidence.size(); ++i) sum += confidence.data()[i];
  meanConfidence = match::meanOf(sum, first.sizeY(), first.sizeX());
}

void crossCheck(const HostFeatures& features, const CTensor<float>& u, const CTensor<float>& v,
                const CTensor<float>& weight) {
  constexpr int kBackwardMargin = 4;
  const Picture first(features.image1, features.hog1, features.energy1);
  const Picture second(features.image2, features.hog2, features.energy2);
  const int w = first.w(), h = first.h();
  const match::Grid grid(w, h, kGridMargin);
  int printed = 0;
  for (std::size_t k = 0; k < grid.x.size(); ++k) {
    const int x = grid.x[k], y = grid.y[k];
    const double gate = match::kGate * static_cast<double>(features.meanConfidence);
    if (gate > static_cast<double>(features.confidence(x, y))) continue;
    const Nearest forward = Search(first, second, x, y).run(match::windowAround(x, y, h, w));
    const Found& best = forward.best;
    if (printed < kPrintedPoints) {
      report::print("%d : %d %d -> %d %d %f %f \n", printed++, x, y, best.x, best.y,
                    static_cast<double>(best.distance), static_cast<double>(forward.second.distance));
    }
    if (best.x == 0 && best.y == 0) continue;
    const Window window = match::windowAround(best.x, best.y, h, w, kBackwardMargin);
    const Found back = Search(second, first, best.x, best.y).run(window).best;
    if (std::abs(back.x - x) > 1 || std::abs(back.y - y) > 1) continue;
    compare(x, y, forward, back, {u(x, y, 0), v(x, y, 0), weight(x, y, 0)});
  }
}

}  // namespace match
