#pragma once

#include <tarvo/flow.h>

namespace api {

/// Throws std::invalid_argument, in the name of `function`, unless a flow can be computed from these.
void checkArguments(const char* function, const CTensor<float>& image1, const CTensor<float>& image2,
                    const NFlow::Parameters& parameters);

/// Smooths both images in place if sigma > 0; counts as timer_filter.
void smooth(CTensor<float>& image1, CTensor<float>& image2, float sigma);

/// False while the matching stage is switched off.
bool matchingEnabled();

/// One flow computation on the device, on checked arguments, inside a device::Entry.
void computeFlow(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow,
                 const NFlow::Parameters& parameters);

}  // namespace api
