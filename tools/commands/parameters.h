#pragma once

#include <tarvo/NFlow.h>

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

/// "--fixed-point-iterations" of fixedPointIterations.
std::string flagOf(const NFlow::Option& option);

/// All options of NFlow::optionTable, or those of the hybrid pipeline, under names like
/// "fixed_point_iterations".
nlohmann::ordered_json parametersAsJson(const NFlow::Options& options, bool hybrid = false);

/// Whether the hybrid pipeline has an option: those of NFlow::Parameters.
bool isHybrids(const NFlow::Option& option);

}  // namespace tool
