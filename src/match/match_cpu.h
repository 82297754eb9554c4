#pragma once

#include <cstddef>

#include "match/match_kernels.h"

namespace match {

/// Floats of scratch for cpuMatch and cpuMatchHome: image B's histograms pixel by pixel, and its codes (see
/// match_codes.h).
std::size_t cpuMatchScratch(int h, int w);

/// HOGMatch_kernel on the CPU device, with the same results. See match_cpu.cpp.
void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch);

/// matchHome on the CPU device.
void cpuMatchHome(const kernels::HOGMatch_kernel& search, const int* homeX, const int* homeY, float* scratch);

}  // namespace match
