// What the tables say of the services, in values that need no object any more.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "services/objects/ServiceInterfaces.h"
#include "tables/TableStore.h"

namespace tessel::tool {

struct DescriptorInfo {
    uint32_t tag;
    std::string name;
    std::string text;  // the name, and what could be read of the descriptor
};

// A media type that a component can have.
struct MediaKind {
    GUID majortype;
    GUID subtype;
    const char* text;       // "video/mpeg2"
    const char* extension;  // of a file that holds such a stream; null where no pin delivers one
};

struct ComponentInfo {
    uint32_t pid = 0;
    uint32_t streamType = 0;
    std::string streamTypeName;
    std::optional<std::string> language;  // of teletext and subtitles all, with commas
    bool scrambled = false;
    const MediaKind* media = nullptr;
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

// The one code that a language is shown by: "ger" for "ger", "deu", "DEU" and "de".
std::string CanonicalLanguage(const std::string& code);

// From the service and the current program map table; named: a table with names has come.
ServiceInfo DescribeService(IDvbService* service, ITableDecoder& tables, bool named);

// Bytes in which all tables ought to have come.
inline constexpr int64_t kByteLimit = 10'000'000;

// "PAT"; "any" for what is no table that is decoded.
const char* TableName(uint32_t tableId);
bool HasTable(ITableDecoder& tables, uint32_t tableId);
// No table that would add names or channel numbers to a complete list is still on its way.
bool NoNamesToCome(ITableDecoder& tables, const std::function<bool(uint32_t pid)>& isPresent);

}  // namespace tessel::tool
