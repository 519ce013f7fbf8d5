// What `tessel info` knows of a stream, and its two ways of saying it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tessel/FileTimes.h"
#include "tools/tessel/Services.h"
#include "tools/tessel/TableReader.h"

namespace tessel::tool {

struct PidInfo {
    uint32_t pid;
    bool scrambled;
};

struct StreamInfo {
    int32_t packetSize = 0;
    std::optional<uint32_t> transportStreamId;
    std::optional<uint32_t> originalNetworkId;
    bool complete = false;
    bool named = false;
    int64_t bytesRead = 0;
    FileTimes times;  // for whoever read them to fill in
    std::vector<ServiceInfo> services;
    std::vector<TableStore::Version> tables;
    std::vector<PidInfo> pids;
    PidSet latePids;  // see TableReader
};

// Reads until the information is complete or 10,000,000 bytes; with allPids to the end.
StreamInfo ReadStreamInfo(InputFile& input, bool allPids);

std::string InfoAsJson(const StreamInfo& info, bool withPids);
std::string InfoAsText(const StreamInfo& info, bool withPids);

}  // namespace tessel::tool
