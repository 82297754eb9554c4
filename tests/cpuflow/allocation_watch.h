#pragma once

#include <cstddef>

/// Bytes of the largest single request to the heap since the last call.
std::size_t largestAllocation();
