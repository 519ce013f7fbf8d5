// Time in the media graph.
#pragma once

#include <cstdint>

// Signed, in units of 100 ns.
using REFERENCE_TIME = int64_t;

inline constexpr REFERENCE_TIME kUnitsPerMillisecond = 10'000;
inline constexpr REFERENCE_TIME MAX_TIME = INT64_MAX;
