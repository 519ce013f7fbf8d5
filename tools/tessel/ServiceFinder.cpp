#include "tools/tessel/ServiceFinder.h"

#include <algorithm>

namespace tessel::tool {

namespace {

constexpr size_t kReadSize = 64 * 1024;

bool MayGoAway(Obstacle obstacle) {
    return obstacle == Obstacle::kNoClock || obstacle == Obstacle::kNoPackets || obstacle == Obstacle::kNoTimeStamp;
}

bool MayImprove(const ServiceInfo& service, const PacketMeter& meter) {
    return std::any_of(service.components.begin(), service.components.end(), [&](const ComponentInfo& component) {
        return MayGoAway(ObstacleOf(service, component, meter));
    });
}

}  // namespace

Obstacle ObstacleOf(const ServiceInfo& service, const ComponentInfo& component, const PacketMeter& meter) {
    const PidCounts& counts = meter.Of(component.pid);
    if (component.media == nullptr)
        return Obstacle::kNoMediaType;
    if (component.media->extension == nullptr)
        return Obstacle::kNoPin;
    if (counts.scrambled && counts.packets == 0)
        return Obstacle::kScrambled;
    if (!service.pcrPid || !meter.Of(*service.pcrPid).hasPcr)
        return Obstacle::kNoClock;
    // Subtitles may begin late: nothing waits for them.
    if (component.media->subtype == MEDIASUBTYPE_DVB_SUBTITLE)
        return Obstacle::kNone;
    if (counts.packets == 0)
        return Obstacle::kNoPackets;
    return counts.timed ? Obstacle::kNone : Obstacle::kNoTimeStamp;
}

FoundServices FindServices(Feed& feed, PacketMeter& meter, const std::function<bool(const ServiceInfo&)>& wanted) {
    FoundServices found;
    TableReader tables;
    const auto enough = [&] {
        if (!tables.IsComplete())
            return false;
        const auto services = tables.Services();
        return std::none_of(services.begin(), services.end(),
                            [&](const ServiceInfo& service) { return wanted(service) && MayImprove(service, meter); });
    };
    std::vector<uint8_t> buffer(kReadSize);
    do {
        const auto room = static_cast<size_t>(kByteLimit - feed.Input().BytesRead());
        const size_t count = feed.Fill(std::span(buffer).first(std::min(buffer.size(), room)));
        found.wholeInput = count == 0;
        if (count == 0)
            break;
        const auto bytes = std::span(buffer).first(count);
        meter.Push(bytes);
        tables.Push(bytes);
    } while (feed.Input().BytesRead() < kByteLimit && !enough());
    tables.Finish();
    meter.Finish();
    found.complete = tables.IsComplete();
    found.services = tables.Services();
    found.latePids = tables.LatePids();
    return found;
}

}  // namespace tessel::tool
