#include <tarvo/NDevice.h>
#include <tarvo/NFlow.h>
#include <tarvo/picture.h>
#include <tarvo/timers.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/fill_unknown.h"
#include "api/flow_job.h"
#include "api/picture_view.h"
#include "device/device.h"
#include "device/memory.h"
#include "device/report.h"
#include "device/stopwatch.h"
#include "device/watch.h"
#include "variational/flow/arguments.h"

namespace NFlow {
namespace {

constexpr const char* kName = "NFlow::compute";

void check(const Image& image1, const Image& image2, const Options& options) {
  if (image1.width != image2.width || image1.height != image2.height) {
    const auto size = [](const Image& image) {
      return std::to_string(image.width) + " x " + std::to_string(image.height);
    };
    throw std::invalid_argument(std::string(kName) + ": image1 and image2 must have the same size, got " +
                                size(image1) + " and " + size(image2));
  }
  variational::checkPlane(kName, "image1 and image2", image1.height, image1.width);
  api::checkImage(kName, "image1", image1);
  api::checkImage(kName, "image2", image2);
  api::checkOptions(kName, options);
  api::checkFinite(kName, "image1", image1);
  api::checkFinite(kName, "image2", image2);
}

/// What the library's clocks, which the lock of the computation keeps to it, gain from now on.
class Clocks {
 public:
  Clocks() {
    for (const Clock& clock : kClocks) before_.*clock.stage = *clock.total;
  }
  Seconds since() const {
    Seconds seconds;
    for (const Clock& clock : kClocks) {
      seconds.*clock.stage = (*clock.total - before_.*clock.stage) / 1000.0;
    }
    return seconds;
  }

 private:
  struct Clock {
    double Seconds::*stage;
    const double* total;
  };
  static constexpr Clock kClocks[] = {
      {&Seconds::total, &timer_total},         {&Seconds::smoothing, &timer_filter},
      {&Seconds::transfer, &timer_memcpy1},    {&Seconds::matching, &timer_HOG},
      {&Seconds::variational, &timer_var},     {&Seconds::downsampling, &timer_down},
      {&Seconds::warping, &timer_interp_warp}, {&Seconds::fixedPoint, &timer_makematrix},
      {&Seconds::solver, &timer_solver},
  };
  Seconds before_;
};

/// Both pictures as the computation takes them: the caller's planes where they can be used, else smoothed and
/// converted copies, whose unknown pixels are filled.
class Prepared {
 public:
  Prepared(const Image& image1, const Image& image2, float sigma) {
    const Image* const images[] = {&image1, &image2};
    for (int k = 0; k < 2; ++k) {
      known_[k] = api::knownPixels(*images[k]);
      const bool used = api::isDense(*images[k]) && !(sigma > 0.0f) && known_[k].empty();
      if (!used) copies_[k] = api::convert(*images[k]);
      if (!known_[k].empty()) api::fillUnknown(copies_[k], known_[k]);
      planes_[k] = used ? static_cast<const float*>(images[k]->data) : copies_[k].data();
      device::poll();
    }
    api::smooth(copies_[0], copies_[1], sigma);
    for (int k = 0; k < 2; ++k) {
      if (known_[k].empty()) known_[k].assign(known_[1 - k].size(), 1.0f);
    }
  }
  const float* operator[](int k) const { return planes_[k]; }
  /// Null if all of both pictures is known.
  const float* known(int k) const { return known_[k].empty() ? nullptr : known_[k].data(); }

 private:
  CTensor<float> copies_[2];
  const float* planes_[2];
  std::vector<float> known_[2];
};

Image viewOf(const CTensor<float>& tensor) {
  return Image::planar(tensor.data(), tensor.sizeX(), tensor.sizeY(), tensor.sizeZ());
}

}  // namespace

Result compute(const Image& image1, const Image& image2, const Options& options, const Watch& watch) {
  check(image1, image2, options);
  const device::Watching watching(watch.progress, watch.poll);
  const device::Entry entry;
  const report::Quiet quiet;
  const int w = image1.width, h = image1.height;
  const bool both = options.backward || options.occlusion;
  report::Runs runs(both ? 2 : 1);
  device::chosenPitch(w);  // chooses and starts the device before any clock

  Result result;
  std::optional<Prepared> pictures;
  const auto direction = [&](int from, int to, CTensor<float>& flow, std::vector<Match>* matches) {
    const Clocks clocks;
    Work work;
    auto total = TARVO_STOPWATCH(total);
    if (!pictures) pictures.emplace(image1, image2, options.sigma);
    work.counts = api::computeFlow(
        {(*pictures)[from], (*pictures)[to], w, h, pictures->known(from), pictures->known(to)}, options, flow,
        matches);
    total.stop();
    api::printTimes();
    work.seconds = clocks.since();
    return work;
  };
  result.forwardWork = direction(0, 1, result.forward, &result.matches);
  if (both) {
    runs.nextRun();
    result.backwardWork = direction(1, 0, result.backward, nullptr);
  }
  if (options.occlusion) result.occlusion = consistency(result.forward, result.backward);
  result.device = NDevice::current();
  return result;
}

Memory memoryRequired(int width, int height, const Options& options) {
  constexpr const char* kFunction = "NFlow::memoryRequired";
  variational::checkPlane(kFunction, "width and height", height, width);
  api::checkOptions(kFunction, options);
  const bool both = options.backward || options.occlusion;
  const std::size_t copies = 2 * kPictureChannels, flows = both ? 4 : 2, fetched = 3;
  const std::size_t plane = device::planeFloats(height, width) * sizeof(float);
  return {api::deviceFloats(width, height, options) * sizeof(float),
          (copies + flows + fetched) * plane + (options.occlusion ? plane / sizeof(float) : 0)};
}

Result compute(const CTensor<float>& image1, const CTensor<float>& image2, const Options& options,
               const Watch& watch) {
  return compute(viewOf(image1), viewOf(image2), options, watch);
}

}  // namespace NFlow
