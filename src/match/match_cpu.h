#pragma once

#include <cstddef>

#include "match/match_kernels.h"

namespace match {

/// Floats of scratch for cpuMatch: image B's histograms, pixel by pixel.
std::size_t cpuMatchScratch(int h, int w);

/// HOGMatch_kernel's form on the CPU device, with the same results. See match_cpu.cpp.
void cpuMatch(const kernels::HOGMatch_kernel& search, float* scratch);

}  // namespace match
