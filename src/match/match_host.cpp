#include <tarvo/hog.h>
#include <tarvo/matching.h>
#include <tarvo/picture.h>

#include <algorithm>

#include "device/device.h"
#include "device/report.h"
#include "match/match_steps.h"
#include "match/shown_pixels.h"
#include "variational/flow/arguments.h"

// The matching step for host arrays.

namespace {

using match::Grid;
using match::HostRecords;
using match::kUnit;

constexpr int kMargin = 4;   // first grid coordinate of HOGMatch
constexpr int kPrinted = 9;  // a kind of line is printed while its count does not exceed this

/// A copy of a host array on the device, dense.
class Uploaded {
 public:
  Uploaded(const float* host, int h, int w, int planes) {
    const std::size_t floats = device::planeFloats(h, w, planes);
    TARVO_CALL(memory_.allocate(floats));
    TARVO_CALL(device::copyFloats(memory_.get(), host, floats, device::Direction::ToDevice));
  }
  const float* get() const { return memory_.get(); }
  void release() { TARVO_CALL(memory_.release()); }

 private:
  device::Buffer memory_;
};

/// u, v and weight of dense host arrays: zero on the device, downloaded at the end.
class MatchField {
 public:
  MatchField(int h, int w, int p) : h_(h), w_(w), p_(p) {
    for (device::Buffer& plane : planes_) {
      TARVO_CALL(plane.allocate(device::planeFloats(h, p)));
      TARVO_CALL(device::clear(plane.get(), device::planeFloats(h, p) * sizeof(float)));
    }
  }
  float* u() const { return planes_[0].get(); }
  float* v() const { return planes_[1].get(); }
  float* weight() const { return planes_[2].get(); }
  void download(float* u, float* v, float* weight) {
    float* const to[] = {u, v, weight};
    for (int i = 0; i < 3; ++i) {
      TARVO_CALL(device::copyPlanes(to[i], w_, planes_[i].get(), p_, h_, w_, 1, device::Direction::ToHost));
    }
  }
  void release() {
    for (device::Buffer& plane : planes_) TARVO_CALL(plane.release());
  }

 private:
  device::Buffer planes_[3];
  int h_, w_, p_;
};

/// Value (x, y) of a device plane of w floats a row.
float valueAt(const float* plane, int w, int x, int y) {
  float value = 0.0f;
  TARVO_CALL(device::copyFloats(&value, plane + static_cast<long>(y) * w + x, 1, device::Direction::ToHost));
  return value;
}

/// Prints the first results: forward matches and failures share one count, kept ones have their own.
void printMatches(const Grid& grid, const HostRecords& r) {
  report::print("GPU Match\n");
  int found = 0, passed = 0;
  const auto printPoint = [&](const char* what, std::size_t k) {
    report::print("consistency check %s : %d : %d %d -> %d %d -> %d %d %f %f\n", what, static_cast<int>(k),
                  grid.x[k], grid.y[k], r.forwardX(k), r.forwardY(k), r.backwardX(k), r.backwardY(k),
                  static_cast<double>(r.best(k)), static_cast<double>(r.second(k)));
  };
  for (std::size_t k = 0; k < grid.x.size(); ++k) {
    if (r.forwardX(k) == 0) continue;
    if (found <= kPrinted) {
      report::print("%d: %d %d %f %f \n", static_cast<int>(k), r.forwardX(k), r.forwardY(k),
                    static_cast<double>(r.best(k)), static_cast<double>(r.second(k)));
      ++found;
    }
    if (!r.consistent(grid, k)) {
      if (found <= kPrinted) printPoint("failed", k), ++found;
    } else if (passed <= kPrinted) {
      printPoint("passed", k), ++passed;
    }
  }
}

/// The images with their histograms and confidence on the device, and what is computed from them.
class HostPair {
 public:
  HostPair(const float* image1, const float* image2, const float* hog1, const float* hog2,
           const float* confidence, int h, int w)
      : image1_(image1, h, w, kPictureChannels),
        image2_(image2, h, w, kPictureChannels),
        hog1_(hog1, h, w, kHogBins),
        hog2_(hog2, h, w, kHogBins),
        confidence_(confidence, h, w, 1),
        pair_{image1_.get(),
              image2_.get(),
              hog1_.get(),
              hog2_.get(),
              confidence_.get(),
              nullptr,
              nullptr,
              0.0f,
              h,
              w,
              w} {
    TARVO_CALL(energy1_.allocate(device::planeFloats(h, w)));
    TARVO_CALL(energy2_.allocate(device::planeFloats(h, w)));
    pair_.energy1 = energy1_.get();
    pair_.energy2 = energy2_.get();
  }
  /// Energies and mean confidence; prints the latter twice, once as the sum of `confidence` in order.
  void createGates(const float* confidence) {
    const int h = pair_.h, w = pair_.w;
    float inOrder = 0.0f;
    for (std::size_t i = 0; i < device::planeFloats(h, w); ++i) inOrder += confidence[i];
    pair_.meanConfidence = match::meanOf(gCompute2DSum(confidence_.get(), h, w, w), h, w);
    report::print("%f %f \n", static_cast<double>(match::meanOf(inOrder, h, w)),
                  static_cast<double>(pair_.meanConfidence));
    computeEnergy_kernel(hog1_.get(), energy1_.get(), h, w, w, kHogBins);
    computeEnergy_kernel(hog2_.get(), energy2_.get(), h, w, w, kHogBins);
    TARVO_LAUNCHED("energy");
    match::printEnergies(w, h, [&](int picture, int x, int y) {
      return valueAt(picture == 1 ? pair_.energy1 : pair_.energy2, w, x, y);
    });
  }
  const match::Pair& pair() const { return pair_; }
  void release() {
    for (Uploaded* upload : {&image1_, &image2_, &hog1_, &hog2_, &confidence_}) upload->release();
    TARVO_CALL(energy1_.release());
    TARVO_CALL(energy2_.release());
  }

 private:
  Uploaded image1_, image2_, hog1_, hog2_, confidence_;
  device::Buffer energy1_, energy2_;
  match::Pair pair_;
};

}  // namespace

void createAndMatchHOG(const float* image1, const float* image2, float* u, float* v, float* weight,
                       int height, int width, int channels) {
  variational::checkPlane("createAndMatchHOG", "the pictures of width x height", height, width,
                          std::max(channels, variational::kMostPlanes));
  const device::Entry entry;
  int p = 0;
  device::Buffer images[2];
  const float* const hosts[] = {image1, image2};
  for (int i = 0; i < 2; ++i) {
    TARVO_CALL(images[i].upload(&p, hosts[i], height, width, channels));
  }
  MatchField field(height, width, p);
  gCreateAndMatchHOG(images[0].get(), images[1].get(), field.u(), field.v(), field.weight(), height, width, p,
                     channels);
  field.download(u, v, weight);
  field.release();
  for (device::Buffer& image : images) TARVO_CALL(image.release());
  report::print("Hog over\n");
}

void HOGMatch(const float* image1, const float* image2, const float* hog1, const float* hog2,
              const float* confidence, float* weight, float* u, float* v, int width, int height) {
  variational::checkPlane("HOGMatch", "the pictures of width x height", height, width);
  const device::Entry entry;
  const int h = height, w = width;
  const Grid grid(w, h, kMargin);
  MatchField field(h, w, w);
  if (grid.count() > 0) {
    HostPair pair(image1, image2, hog1, hog2, confidence, h, w);
    pair.createGates(confidence);
    match::Records records(grid);
    match::matchBothWays(pair.pair(), records, match::Backward::Matches, field.weight(), field.u(),
                         field.v());
    field.download(u, v, weight);
    const HostRecords result(records);
    match::setCounts(match::countsOf(grid, result));
    printMatches(grid, result);
    pair.release();
    records.release();
  } else {
    field.download(u, v, weight);
    match::setCounts(match::countsOf(grid, {}));
  }
  field.release();
  report::print("Hog over\n");
}
