#include <tarvo/CFilter.h>
#include <tarvo/NFilter.h>
#include <tarvo/hog.h>

#include <cstddef>
#include <utility>
#include <vector>

#include "match/hog_sectors.h"

namespace {

constexpr int kMeanWidth = 7;

/// Adds the magnitude of every gradient of every channel to the plane of its sector.
void binGradients(const CTensor<float>& dx, const CTensor<float>& dy, CTensor<float>& hog) {
  const int w = dx.sizeX(), h = dx.sizeY();
  const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(w) * h;
  std::vector<float> magnitude(static_cast<std::size_t>(w));
  std::vector<int> sector(magnitude.size());
  for (int row = 0; row < h * dx.sizeZ(); ++row) {
    const std::ptrdiff_t from = static_cast<std::ptrdiff_t>(row) * w;
    match::sortGradients(dx.data() + from, dy.data() + from, w, magnitude.data(), sector.data());
    float* const out = hog.data() + static_cast<std::ptrdiff_t>(row % h) * w;
    for (int x = 0; x < w; ++x) out[sector[x] * n + x] += magnitude[x];
  }
}

/// Makes the filter across the planes nearly circular: it has mirrored at the first and the last plane, which
/// are blended here.
void joinEnds(CTensor<float>& hog, double m) {
  const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(hog.sizeX()) * hog.sizeY();
  float* const first = hog.data();
  float* const last = hog.data() + (kHogBins - 1) * n;
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    const double h0 = first[i], h14 = last[i];
    first[i] = static_cast<float>(m * h14 + (1.0 - m) * h0);
    last[i] = static_cast<float>(m * h0 + (1.0 - m) * h14);
  }
}

}  // namespace

void computeHOG(const CTensor<float>& image, CTensor<float>& hog) {
  const int w = image.sizeX(), h = image.sizeY();
  const CDerivative<float> derivative(3);
  CTensor<float> dx(w, h, image.sizeZ()), dy(w, h, image.sizeZ());
  NFilter::filter(image, dx, derivative, 1, 1);
  NFilter::filter(image, dy, 1, derivative, 1);
  CTensor<float> sums(w, h, kHogBins, 0.0f);
  binGradients(dx, dy, sums);

  const CSmooth<float> smooth(0.8f, 1.0f);
  CTensor<float> field(w, h, kHogBins);
  NFilter::filter(sums, field, 1, 1, smooth);
  joinEnds(field, smooth(0));
  NFilter::boxFilterX(field, sums, kMeanWidth);
  NFilter::boxFilterY(sums, field, kMeanWidth);
  hog = std::move(field);
}
