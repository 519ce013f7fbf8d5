#include "tools/tessel/ServiceFinder.h"

#include <algorithm>

#include "tables/TableFactory.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Pipeline.h"

namespace tessel::tool {

namespace {

bool MayGoAway(Obstacle obstacle) {
    return obstacle == Obstacle::kNoClock || obstacle == Obstacle::kNoPackets || obstacle == Obstacle::kNoTimeStamp;
}

class Finder {
public:
    explicit Finder(const PacketMeter& meter)
        : m_meter(meter),
          m_pipeline(StreamingMode::kRecording, 1),
          m_information(m_pipeline.SplitterAs<IDvbServiceInformationEx>(0)),
          m_tables(m_pipeline.SplitterAs<ITableDecoder>(0)) {}

    Pipeline& Graph() { return m_pipeline; }

    bool IsComplete() const {
        return m_information->IsServiceInformationComplete() == S_OK &&
               NoNamesToCome(*m_tables, [this](uint32_t pid) { return m_meter.IsPresent(pid); });
    }
    std::vector<ServiceInfo> Services() const {
        const bool named = HasTable(*m_tables, kServiceDescriptionTable) || HasTable(*m_tables, kVirtualChannelTable);
        ComPtr<IDvbMapping> list;
        m_information->GetServices(list.Put());
        std::vector<ServiceInfo> services;
        for (int32_t i = 0; const auto service = ItemAs<IDvbService>(list.Get(), i); ++i)
            services.push_back(DescribeService(service.Get(), *m_tables, named));
        return services;
    }

private:
    const PacketMeter& m_meter;
    Pipeline m_pipeline;
    const ComPtr<IDvbServiceInformationEx> m_information;
    const ComPtr<ITableDecoder> m_tables;
};

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
    Finder finder(meter);
    finder.Graph().Start();
    const auto enough = [&] {
        if (!finder.IsComplete())
            return false;
        const auto services = finder.Services();
        return std::none_of(services.begin(), services.end(),
                            [&](const ServiceInfo& service) { return wanted(service) && MayImprove(service, meter); });
    };
    do {
        const auto bytes = finder.Graph().Read(feed, static_cast<size_t>(kByteLimit - feed.Input().BytesRead()));
        found.wholeInput = bytes.empty();
        if (bytes.empty())
            break;
        meter.Push(bytes);
        finder.Graph().Push();
        // The splitter parses on a thread of its own: what it makes of these bytes may save a wait for more.
        while (!enough() && !feed.Input().IsReady() && !Interrupted())
            SleepUnlessInterrupted(1);
    } while (feed.Input().BytesRead() < kByteLimit && !enough());
    // The splitter parses on a thread of its own; the end of the stream waits for it.
    finder.Graph().End();
    meter.Finish();
    found.complete = finder.IsComplete();
    found.services = finder.Services();
    return found;
}

}  // namespace tessel::tool
