// How long a file plays, as the file source knows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/stream/PidStatus.h"
#include "tools/tessel/Services.h"

namespace tessel::tool {

// What is not known is absent.
struct FileTimes {
    std::optional<double> duration;  // seconds, from the first time stamp on
    std::optional<int64_t> bitRate;  // bits a second, of packets of 188 bytes
    bool seekable = false;
};

// By the first video of the services, or else their first audio, that is clear. Nothing is known of a path that leads
// to no regular file, or to one that the file source does not open, or whose
// clock goes back.
FileTimes ReadFileTimes(const std::string& path, int32_t packetSize, const std::vector<ServiceInfo>& services,
                        const PidSet& latePids);

}  // namespace tessel::tool
