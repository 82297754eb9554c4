#pragma once

namespace NMath {

/// Pi in single precision.
inline constexpr float Pi = 3.1415927f;

}  // namespace NMath
