#pragma once

#include <tarvo/NFlow.h>

#include <vector>

namespace api {

/// Throws std::invalid_argument, in the name of `function`, unless a flow can be computed from these.
void checkArguments(const char* function, const CTensor<float>& image1, const CTensor<float>& image2,
                    const NFlow::Parameters& parameters);
/// Throws std::invalid_argument, in the name of `function`, unless every option is in its range.
void checkOptions(const char* function, const NFlow::Options& options);

/// Smooths both images in place if sigma > 0; counts as timer_filter.
void smooth(CTensor<float>& image1, CTensor<float>& image2, float sigma);

/// False while the matching stage of the entry points in <tarvo/flow.h> is switched off.
bool matchingEnabled();

/// Two pictures on the host, of three dense planes each, and a dense plane for each that is 1 where it is known
/// and 0 elsewhere; both null: known everywhere.
struct Pictures {
  const float *image1, *image2;
  int w, h;
  const float *known1 = nullptr, *known2 = nullptr;
};

/// One flow computation on the device, on checked arguments, inside a device::Entry: all but smoothing and the
/// printed times. Returns the counts of its matches, and appends them to `matches` unless that is null.
NMatching::Counts computeFlow(const Pictures& pictures, const NFlow::Options& options, CTensor<float>& flow,
                              std::vector<NFlow::Match>* matches);

/// Floats of device memory that computeFlow takes at one time.
std::size_t deviceFloats(int w, int h, const NFlow::Options& options);

/// Prints the times of a computation.
void printTimes();

}  // namespace api
