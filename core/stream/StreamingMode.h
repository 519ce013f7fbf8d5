// How a filter takes its input, which decides where time comes from and who waits for whom.
#pragma once

#include <cstdint>

namespace tessel {

enum class StreamingMode : int32_t {
    kLive = 0,       // time from input arrivals; outputs drop rather than wait
    kStream = 1,     // outputs wait for room
    kRecording = 2,  // as kStream, with mode parameter 0
    kFile = 3,       // as kStream; parsing stops when every output refuses a packet
};

}  // namespace tessel
