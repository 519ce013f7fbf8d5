// Cuts encoded elementary streams into the units that become PES packets.
//
// It reads what samples/make-sample encodes: video of 25 pictures a second, audio of 48 kHz.
#pragma once

#include <vector>

#include "tests/support/StreamBuilder.h"

namespace tessel::sample {

using build::Bytes;

// Times are in 90 kHz and count from the first picture or sample shown.
struct AccessUnit {
    Bytes data;
    int64_t pts = 0;
    int64_t dts = 0;
    bool randomAccess = false;
};
using AccessUnits = std::vector<AccessUnit>;

AccessUnits SplitMpegVideo(const Bytes& stream);
// Without B-pictures and with an access unit delimiter before each picture.
AccessUnits SplitAvcVideo(const Bytes& stream);

// framesPerUnit frames share a PES packet and its time stamp.
AccessUnits SplitMpegAudio(const Bytes& stream, size_t framesPerUnit);
AccessUnits SplitAc3Audio(const Bytes& stream, size_t framesPerUnit);
AccessUnits SplitAdtsAudio(const Bytes& stream, size_t framesPerUnit);

}  // namespace tessel::sample
