// The streams of a plan on their way into their files: a pin and a sink for each.
#pragma once

#include "platform/media/FilterGraph.h"
#include "tools/tessel/DemuxRun.h"

namespace tessel::tool {

class Outlets {
public:
    // filters: those of the graph that the plan's streams are shared out to, stopped. A pin of theirs that delivers a
    // stream of the plan already is taken for it; the others go.
    Outlets(CFilterGraph& graph, const std::vector<ComPtr<IBaseFilter>>& filters, const DemuxRequest& request,
            const DemuxPlan& plan, const InputFile& input);

    bool AnyFailed() const;
    int64_t DeliveredBytes() const;
    // Once the graph is stopped. meter: of what went in, null when it was not counted. Failure when a file could not be
    // written.
    std::vector<StreamResult> Close(const PacketMeter* meter) const;

private:
    struct Outlet {
        const StreamPlan* plan;
        ComPtr<SinkFilter> sink;
        ComPtr<IPin> pin;
    };

    void Add(const StreamPlan& stream, IBaseFilter& filter, const InputFile& input);
    bool IsPlanned(uint32_t pid, size_t filter) const;
    void DeleteOtherPins(IBaseFilter& filter, size_t index) const;
    static std::optional<int64_t> Dropped(const Outlet& outlet, const StreamResult& stream, const PacketMeter* meter);

    CFilterGraph& m_graph;
    const DemuxRequest& m_request;
    const DemuxPlan& m_plan;
    std::vector<Outlet> m_outlets;
};

}  // namespace tessel::tool
