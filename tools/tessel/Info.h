// What `tessel info` knows of a stream, and its two ways of saying it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

struct DescriptorInfo {
    uint32_t tag;
    std::string name;
    std::string text;  // the name, and what could be read of the descriptor
};

struct ComponentInfo {
    uint32_t pid = 0;
    uint32_t streamType = 0;
    std::string streamTypeName;
    std::optional<std::string> language;
    bool scrambled = false;
    std::optional<std::string> media;
    std::vector<DescriptorInfo> descriptors;
};

struct ChannelInfo {
    uint32_t major, minor, sourceId;
};

// What is not known is absent, never 0.
struct ServiceInfo {
    uint32_t id = 0;
    std::optional<std::string> name;
    std::optional<std::string> provider;
    std::optional<uint32_t> type;
    std::optional<std::string> typeName;
    bool scrambled = false;
    std::optional<uint32_t> pmtPid;
    std::optional<uint32_t> pcrPid;
    std::optional<ChannelInfo> channel;
    bool hasProgramMap = false;
    std::vector<ComponentInfo> components;
};

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
    std::vector<ServiceInfo> services;
    std::vector<TableStore::Version> tables;
    std::vector<PidInfo> pids;
};

// Reads until the information is complete or 10,000,000 bytes; with allPids to the end.
StreamInfo ReadStreamInfo(InputFile& input, bool allPids);

std::string InfoAsJson(const StreamInfo& info, bool withPids);
std::string InfoAsText(const StreamInfo& info, bool withPids);

}  // namespace tessel::tool
