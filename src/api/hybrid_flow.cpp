#include <tarvo/COpticFlow.h>
#include <tarvo/flow.h>
#include <tarvo/hog.h>
#include <tarvo/matching.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "api/flow_job.h"
#include "device/device.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "match/cross_check.h"
#include "match/shown_pixels.h"

// The driver that keeps most of the work on the host, and comparisons of host and device descriptors.

namespace {

constexpr float kOmega = 1.85f;  // relaxation factor

using match::kShownX;
using match::kShownY;

/// What the reports show besides: blocks of pixels from a corner, of one bin of the histograms.
constexpr int kShownBin = 5;
constexpr int kHogBlock = 150, kHogBlockSize = 9, kConfidenceBlock = 100, kConfidenceBlockSize = 7;

bool holds(const CTensor<float>& image, int x, int y) {
  return image.sizeX() > x && image.sizeY() > y;
}

/// Planes u, v and weight of the matches, zero at first.
struct MatchField {
  CTensor<float> u, v, weight;

  MatchField(int w, int h) : u(w, h, 1, 0.0f), v(u), weight(u) {}
};

/// Matches by the device, repeated and compared by the host.
MatchField matchPictures(const CTensor<float>& image1, const CTensor<float>& image2) {
  const int w = image1.sizeX(), h = image1.sizeY();
  MatchField field(w, h);
  if (!api::matchingEnabled()) return field;
  const match::HostFeatures features(image1, image2);
  report::print("avg = %f \n", static_cast<double>(features.meanConfidence));
  match::printEnergies(w, h, [&features](int picture, int x, int y) {
    return picture == 1 ? features.energy1(x, y) : features.energy2(x, y);
  });
  HOGMatch(image1.data(), image2.data(), features.hog1.data(), features.hog2.data(),
           features.confidence.data(), field.weight.data(), field.u.data(), field.v.data(), w, h);
  match::crossCheck(features, field.u, field.v, field.weight);
  return field;
}

/// Prints a block of a plane of width w from (corner, corner) on; its sum.
float printBlock(const float* plane, int w, int corner, int size) {
  float sum = 0.0f;
  for (int y = corner; y < corner + size; ++y) {
    for (int x = corner; x < corner + size; ++x) {
      const float value = plane[static_cast<std::ptrdiff_t>(y) * w + x];
      report::print("%f ", static_cast<double>(value));
      sum += value;
    }
    report::print("\n");
  }
  return sum;
}

void requirePixels(const char* function, const CTensor<float>& image) {
  if (image.size() > 0) return;
  throw std::invalid_argument(std::string(function) + ": image must have pixels, got " +
                              std::to_string(image.sizeX()) + " x " + std::to_string(image.sizeY()) + " x " +
                              std::to_string(image.sizeZ()));
}

void printSum(float sum) {
  constexpr float kCount = kHogBlockSize * kHogBlockSize;
  report::print("sum = %f avg=%f\n", static_cast<double>(sum), static_cast<double>(sum / kCount));
}

}  // namespace

void runFlow(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow, float sigma, float alpha,
             float beta, float gamma, float eta, int fixedPointIterations, int solverIterations) {
  api::checkArguments("runFlow", image1, image2,
                      {sigma, alpha, beta, gamma, eta, fixedPointIterations, solverIterations});
  const device::Entry entry;
  api::smooth(image1, image2, sigma);
  MatchField matches = matchPictures(image1, image2);
  auto total = TARVO_STOPWATCH(total);
  COpticFlow::warpingGeometric(image1, image2, flow, matches.u, matches.v, matches.weight, nullptr, 0.0f,
                               alpha, beta, gamma, 0.0f, eta, fixedPointIterations, solverIterations, kOmega);
  total.stop();
  report::print("z=%d \n", image1.sizeZ());
  report::print("Filter time = %f \n", timer_filter);
  report::print("Var time = %f sec\n", timer_total / 1000.0);
}

void HOGCheck(CTensor<float> image) {
  requirePixels("HOGCheck", image);
  const device::Entry entry;
  const int w = image.sizeX(), h = image.sizeY();
  CTensor<float> host;
  computeHOG(image, host);
  CTensor<float> device(w, h, kHogBins);
  ComputeHOGGPU(image.data(), device.data(), image.sizeZ(), w, h);
  if (holds(image, kShownX, kShownY)) {
    for (int b = 0; b < kHogBins; ++b) {
      report::print("%d %d %d %f %f\n", kShownX, kShownY, b, static_cast<double>(host(kShownX, kShownY, b)),
                    static_cast<double>(device(kShownX, kShownY, b)));
    }
    report::print("%d %d %d\n", kShownX, kShownY, kShownBin);
  }
  constexpr int kLast = kHogBlock + kHogBlockSize - 1;
  if (!holds(image, kLast, kLast)) return;
  const float sum = printBlock(&host(0, 0, kShownBin), w, kHogBlock, kHogBlockSize);
  report::print("\n");
  printSum(sum);
  printSum(printBlock(&device(0, 0, kShownBin), w, kHogBlock, kHogBlockSize));
}

void confCheck(CTensor<float> image) {
  requirePixels("confCheck", image);
  const device::Entry entry;
  const int w = image.sizeX(), h = image.sizeY();
  CMatrix<float> host;
  computeConfidence(image, CTensor<float>(), host);
  CMatrix<float> device(w, h);
  computeConfidenceGPU(image.data(), nullptr, device.data(), h, w, image.sizeZ());
  constexpr int kLast = kConfidenceBlock + kConfidenceBlockSize - 1;
  if (holds(image, kLast, kLast)) {
    printBlock(host.data(), w, kConfidenceBlock, kConfidenceBlockSize);
    report::print("\n");
    printBlock(device.data(), w, kConfidenceBlock, kConfidenceBlockSize);
  }
  float hostSum = 0.0f, deviceSum = 0.0f;
  for (int i = 0; i < host.size(); ++i) {
    hostSum += host.data()[i];
    deviceSum += device.data()[i];
  }
  const auto pixels = static_cast<float>(w * h);
  report::print("sums (cpu,gpu) = %f %f avg = %f %f \n", static_cast<double>(hostSum),
                static_cast<double>(deviceSum), static_cast<double>(hostSum / pixels),
                static_cast<double>(deviceSum / pixels));
}
