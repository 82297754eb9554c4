#pragma once

namespace NMath {

/// The circle number in single precision, as every formula of the library uses it.
inline constexpr float Pi = 3.1415927f;

}  // namespace NMath
