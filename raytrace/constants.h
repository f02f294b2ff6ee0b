// Floating-point limits the ray-tracing code shares. Each use still names the part a limit
// plays there (kAxisTiny, kTinyDirection, ...) and takes its value from here.
#pragma once

#include <limits>

namespace vlkr::raytrace {

constexpr float kFloatMax = std::numeric_limits<float>::max();             // 3.4028235e38
constexpr float kFloatEpsilon = std::numeric_limits<float>::epsilon();     // 2^-23
constexpr double kDoubleEpsilon = std::numeric_limits<double>::epsilon();  // 2^-52

}  // namespace vlkr::raytrace
