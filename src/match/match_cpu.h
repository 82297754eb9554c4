#pragma once

#include <cstddef>

#include "match/match_kernels.h"

namespace match {

/// Floats of scratch for cpuMatch: image B as histograms, pixel by pixel, and in codes (match_codes.h).
std::size_t cpuMatchScratch(int h, int w);

/// HOGMatch_kernel's form on the CPU device, with the same results. See match_cpu.cpp.
void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch);

}  // namespace match
