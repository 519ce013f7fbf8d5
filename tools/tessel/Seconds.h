// Seconds in JSON.
#pragma once

#include <cmath>

namespace tessel::tool {

// To the microsecond, for time stamps tell no more: what binary fractions add to that is no news.
inline double RoundedSeconds(double seconds) {
    constexpr double kMicrosecondsPerSecond = 1e6;
    return std::round(seconds * kMicrosecondsPerSecond) / kMicrosecondsPerSecond;
}

}  // namespace tessel::tool
