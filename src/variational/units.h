#pragma once

/// Names of the source units, as the messages of their checks print them.
namespace units {

constexpr const char* kOpticalFlowGPU = "OpticalFlowGPU";
constexpr const char* kFilters = "Filters";
constexpr const char* kSolvers = "solvers";

}  // namespace units
