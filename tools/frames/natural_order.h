#pragma once

#include <string>
#include <vector>

namespace tool {

/// Whether a comes before b as people count: runs of digits by their value, "frame9" before "frame10". Names
/// that differ in leading zeros only come in the order of their characters.
bool naturallyBefore(const std::string& a, const std::string& b);

/// What is missing in the numbers of names that differ in their last number alone, e.g. "17, 23-24": numbers
/// between the first and the last one, in the most frequent step. Empty if nothing is, or if the names are not
/// of one kind.
/// @param names  in natural order
std::string missingNumbers(const std::vector<std::string>& names);

}  // namespace tool
