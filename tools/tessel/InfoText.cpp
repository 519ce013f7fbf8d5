#include <cmath>
#include <cstdio>

#include "tools/tessel/Info.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

std::string Hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04X", value);
    return text;
}

std::string HexOr(const std::optional<uint32_t>& value, const char* otherwise) {
    return value ? Hex(*value) + " (" + std::to_string(*value) + ")" : otherwise;
}

// "1:02:03.45"
std::string DurationOr(const std::optional<double>& seconds, const char* otherwise) {
    if (!seconds)
        return otherwise;
    const long long hundredths = std::llround(*seconds * 100);
    char text[48];
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%02lld", hundredths / 360'000, hundredths / 6'000 % 60,
                  hundredths / 100 % 60, hundredths % 100);
    return text;
}

// Descriptors stand below their component: their texts are too long for a column.
std::string Components(const ServiceInfo& service) {
    std::vector<Row> rows = {{"PID", "MEDIA", "LANG", "STREAM TYPE"}};
    for (const ComponentInfo& component : service.components) {
        std::string media = component.media != nullptr ? component.media->text : "-";
        if (component.scrambled)
            media += " (scrambled)";
        rows.push_back(
            {std::to_string(component.pid), media, component.language.value_or("-"), component.streamTypeName});
    }
    const auto lines = Aligned(rows, "    ");
    std::string text = lines.front();
    for (size_t i = 0; i < service.components.size(); ++i) {
        text += lines[i + 1];
        for (const DescriptorInfo& descriptor : service.components[i].descriptors)
            text += "         " + ToTerminal(descriptor.text) + "\n";
    }
    return text;
}

std::string Quoted(const std::optional<std::string>& text, const char* otherwise) {
    return text ? "\"" + ToTerminal(*text) + "\"" : otherwise;
}

std::string Heading(const ServiceInfo& service) {
    std::string text = "service " + std::to_string(service.id) + "  " + Quoted(service.name, "(no name)");
    if (service.channel)
        text += "  channel " + std::to_string(service.channel->major) + "." + std::to_string(service.channel->minor);
    if (service.scrambled)
        text += "  scrambled";
    return text + "\n";
}

std::string Details(const ServiceInfo& service) {
    std::vector<Row> rows;
    if (service.provider)
        rows.push_back({"provider", Quoted(service.provider, "")});
    if (service.type)
        rows.push_back({"type", *service.typeName + " (" + std::to_string(*service.type) + ")"});
    rows.push_back({"PMT PID", service.pmtPid ? std::to_string(*service.pmtPid) : "not in the PAT"});
    if (service.hasProgramMap)
        rows.push_back({"PCR PID", service.pcrPid ? std::to_string(*service.pcrPid) : "none"});
    return Columned(rows, "  ");
}

std::string WhatIsMissing(const StreamInfo& info) {
    if (!info.transportStreamId)
        return "no program association table";
    std::string missing;
    for (const ServiceInfo& service : info.services)
        if (service.pmtPid && !service.hasProgramMap)
            missing += (missing.empty() ? "no usable program map of service " : ", ") + std::to_string(service.id);
    if (!info.named)
        missing += missing.empty() ? "no service names" : "; no service names";
    return missing.empty() ? "tables are changing" : missing;
}

std::string PidTable(const std::vector<PidInfo>& pids) {
    std::vector<Row> rows = {{"PID", "", ""}};
    for (const PidInfo& pid : pids)
        rows.push_back({std::to_string(pid.pid), Hex(pid.pid), pid.scrambled ? "scrambled" : ""});
    return Columned(rows, "  ");
}

}  // namespace

std::string InfoAsText(const StreamInfo& info, bool withPids) {
    std::string text = Columned(
        {{"packet size", std::to_string(info.packetSize) + " bytes"},
         {"transport stream", HexOr(info.transportStreamId, "unknown")},
         {"original network", HexOr(info.originalNetworkId, "unknown")},
         {"information", info.complete
                             ? "complete"
                             : "incomplete after " + std::to_string(info.bytesRead) + " bytes: " + WhatIsMissing(info)},
         {"duration", DurationOr(info.times.duration, "unknown")},
         {"bit rate", info.times.bitRate ? std::to_string(*info.times.bitRate) + " bit/s" : "unknown"},
         {"seekable", info.times.seekable ? "yes" : "no"}},
        "");
    for (const ServiceInfo& service : info.services) {
        text += "\n" + Heading(service) + Details(service);
        if (!service.components.empty())
            text += Components(service);
    }
    if (withPids)
        text += "\n" + PidTable(info.pids);
    return text;
}

}  // namespace tessel::tool
