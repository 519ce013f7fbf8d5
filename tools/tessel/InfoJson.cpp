#include <nlohmann/json.hpp>

#include "tools/tessel/Info.h"
#include "tools/tessel/Seconds.h"

#include "tools/tessel/Memory.h"

namespace tessel::tool {

namespace {

using Json = nlohmann::ordered_json;

template <class T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json ToJson(const ComponentInfo& component) {
    Json descriptors = Json::array();
    for (const DescriptorInfo& descriptor : component.descriptors)
        descriptors.push_back({{"tag", descriptor.tag}, {"name", descriptor.name}, {"text", descriptor.text}});
    return {{"pid", component.pid},
            {"stream_type", component.streamType},
            {"stream_type_name", component.streamTypeName},
            {"language", OrNull(component.language)},
            {"scrambled", component.scrambled},
            {"media", component.media != nullptr ? Json(component.media->text) : Json(nullptr)},
            {"descriptors", std::move(descriptors)}};
}

Json ToJson(const ServiceInfo& service) {
    Json channel = nullptr;
    if (service.channel)
        channel = {{"major", service.channel->major},
                   {"minor", service.channel->minor},
                   {"source_id", service.channel->sourceId}};
    Json components = Json::array();
    for (const ComponentInfo& component : service.components)
        components.push_back(ToJson(component));
    return {{"id", service.id},
            {"name", OrNull(service.name)},
            {"provider", OrNull(service.provider)},
            {"type", OrNull(service.type)},
            {"type_name", OrNull(service.typeName)},
            {"scrambled", service.scrambled},
            {"pmt_pid", OrNull(service.pmtPid)},
            {"pcr_pid", OrNull(service.pcrPid)},
            {"channel", std::move(channel)},
            {"components", std::move(components)}};
}

}  // namespace

std::string InfoAsJson(const StreamInfo& info, bool withPids) {
    const SpareMemory spare;
    Json services = Json::array();
    for (const ServiceInfo& service : info.services)
        services.push_back(ToJson(service));
    Json tables = Json::array();
    for (const TableStore::Version& table : info.tables)
        tables.push_back({{"table_id", table.tableId}, {"key", table.key}, {"version", table.version}});

    Json json = {{"packet_size", info.packetSize},
                 {"transport_stream_id", OrNull(info.transportStreamId)},
                 {"original_network_id", OrNull(info.originalNetworkId)},
                 {"complete", info.complete},
                 {"duration", info.times.duration ? Json(RoundedSeconds(*info.times.duration)) : Json(nullptr)},
                 {"bit_rate", OrNull(info.times.bitRate)},
                 {"seekable", info.times.seekable},
                 {"services", std::move(services)},
                 {"tables", std::move(tables)}};
    if (withPids) {
        Json pids = Json::array();
        for (const PidInfo& pid : info.pids)
            pids.push_back({{"pid", pid.pid}, {"scrambled", pid.scrambled}});
        json["pids"] = std::move(pids);
    }
    return json.dump(2) + "\n";
}

}  // namespace tessel::tool
