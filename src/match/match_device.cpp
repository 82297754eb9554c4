#include <tarvo/hog.h>
#include <tarvo/matching.h>

#include "device/device.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "match/match_cpu.h"
#include "match/match_steps.h"

// The matching step on device planes.

namespace {

using match::kUnit;
using match::Pair;

void printTimes() {
  report::print("HOG creation = %f msec\n", timer_hogc);
  report::print("HOG match = %f msec\n", timer_hogmatch);
}

/// Histograms, confidence and energies of two images.
class Features {
 public:
  Features(const float* image1, const float* image2, int h, int w, int p, int channels)
      : pair_{image1, image2, nullptr, nullptr, nullptr, nullptr, nullptr, 0.0f, h, w, p},
        channels_(channels) {
    TARVO_CALL(hog1_.allocate(device::planeFloats(h, p, kHogBins)));
    TARVO_CALL(hog2_.allocate(device::planeFloats(h, p, kHogBins)));
    for (device::Buffer* plane : {&confidence_, &energy1_, &energy2_}) {
      TARVO_CALL(plane->allocate(device::planeFloats(h, p)));
    }
    pair_.hog1 = hog1_.get();
    pair_.hog2 = hog2_.get();
    pair_.confidence = confidence_.get();
    pair_.energy1 = energy1_.get();
    pair_.energy2 = energy2_.get();
  }
  void createHistograms() {
    gComputeHOG(pair_.image1, hog1_.get(), channels_, kHogBins, pair_.h, pair_.w, pair_.p);
    gComputeHOG(pair_.image2, hog2_.get(), channels_, kHogBins, pair_.h, pair_.w, pair_.p);
  }
  void createGates() {
    const int h = pair_.h, w = pair_.w, p = pair_.p;
    gComputeConfidence(pair_.image1, confidence_.get(), h, w, p, channels_);
    computeEnergy_kernel(hog1_.get(), energy1_.get(), h, w, p, kHogBins);
    computeEnergy_kernel(hog2_.get(), energy2_.get(), h, w, p, kHogBins);
    pair_.meanConfidence = match::meanOf(gCompute2DSum(confidence_.get(), h, w, p), h, w);
    TARVO_LAUNCHED("Energy over\n");
  }
  const Pair& pair() const { return pair_; }
  void release() {
    for (device::Buffer* buffer : {&hog1_, &hog2_, &confidence_, &energy1_, &energy2_}) {
      TARVO_CALL(buffer->release());
    }
  }

 private:
  device::Buffer hog1_, hog2_, confidence_, energy1_, energy2_;
  Pair pair_;
  int channels_;
};

}  // namespace

std::size_t match::matchingFloats(int h, int w, int p) {
  // The histograms of one picture, and the confidence of the other, are made beside all features; on a CUDA
  // device the former by kernels on whole planes.
  constexpr int kFeatures = 2 * kHogBins + 3, kHistograms = kHogBins + 2, kConfidence = 10;
  const bool onCuda = device::onCuda();
  const std::size_t making = device::planeFloats(h, p, onCuda ? kHistograms : kConfidence);
  const std::size_t searching = onCuda ? 0 : cpuMatchScratch(h, w);
  const auto records = static_cast<std::size_t>(Records::kFields * Grid(w, h, NMatching::kMargin).count());
  return device::planeFloats(h, p, kFeatures) + records + std::max(making, searching);
}

NMatching::Counts match::createAndMatch(const float* image1, const float* image2, float* u, float* v,
                                        float* weight, int height, int width, int pitch, int channels,
                                        int spacing) {
  const Grid grid(width, height, kGridMargin, spacing);
  report::print("%d %d %d %d\n", grid.columns, grid.rows, width, height);
  for (float* plane : {u, v, weight}) {
    TARVO_CALL(device::clear(plane, device::planeFloats(height, pitch) * sizeof(float)));
  }
  if (grid.count() == 0) {
    printTimes();
    return countsOf(grid, {});
  }
  Features features(image1, image2, height, width, pitch, channels);
  Records records(grid);

  auto hogc = TARVO_STOPWATCH(hogc);
  features.createHistograms();
  device::synchronize();
  hogc.stop();

  auto hogmatch = TARVO_STOPWATCH(hogmatch);
  features.createGates();
  matchBothWays(features.pair(), records, Backward::Home, weight, u, v);
  device::synchronize();
  hogmatch.stop();
  TARVO_LAUNCHED("Consistency check");

  const NMatching::Counts counts = countsOf(grid, HostRecords(records));
  printTimes();
  features.release();
  records.release();
  return counts;
}

void gCreateAndMatchHOG(const float* image1, const float* image2, float* u, float* v, float* weight,
                        int height, int width, int pitch, int channels) {
  match::setCounts(match::createAndMatch(image1, image2, u, v, weight, height, width, pitch, channels));
}
