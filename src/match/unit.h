#pragma once

namespace match {

/// The name of the source unit, as the messages of its checks print it.
constexpr const char* kUnit = "HOGMatch";

}  // namespace match
