#include "tools/tessel/Outlets.h"

#include <algorithm>

#include "output/OutputMediaTypes.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "tools/tessel/Pipeline.h"

namespace tessel::tool {

namespace {

// Twenty streams must not take a megabyte each.
constexpr size_t kFileBuffer = 64 * 1024;

AM_MEDIA_TYPE TypeOf(const StreamPlan& stream) {
    AM_MEDIA_TYPE type;
    type.formattype = FORMAT_None;
    type.bFixedSizeSamples = 1;
    type.lSampleSize = 1;
    switch (*stream.content) {
    case Content::kElementary:
        type.majortype = stream.media->majortype;
        type.subtype = stream.media->subtype;
        type.bTemporalCompression = type.majortype == MEDIATYPE_Video ? 1 : 0;
        break;
    case Content::kPackets:
        type.majortype = MEDIATYPE_Stream;
        type.subtype = MEDIASUBTYPE_MPEG2_TRANSPORT;
        break;
    case Content::kSections:
        type.majortype = MEDIATYPE_MPEG2_SECTIONS;
        break;
    }
    return type;
}

MEDIA_SAMPLE_CONTENT SampleContentOf(Content content) {
    switch (content) {
    case Content::kElementary:
        return MEDIA_ELEMENTARY_STREAM;
    case Content::kPackets:
        return MEDIA_TRANSPORT_PACKET;
    case Content::kSections:
        break;
    }
    return MEDIA_MPEG2_PSI;
}

std::u16string PinName(const StreamPlan& stream) {
    const std::string name = stream.FileName();
    return {name.begin(), name.end()};
}

// The PID that the pin delivers as an elementary stream.
std::optional<uint32_t> PidOf(const ComPtr<IPin>& pin) {
    const auto map = pin.As<IMPEG2PIDMap>();
    ComPtr<IEnumPIDMap> entries;
    PID_MAP entry{0, MEDIA_ELEMENTARY_STREAM};
    if (!map || map->EnumPIDMap(entries.Put()) != S_OK || entries->Next(1, &entry, nullptr) != S_OK ||
        entry.MediaSampleContent != MEDIA_ELEMENTARY_STREAM)
        return std::nullopt;
    return entry.ulPID;
}

template <class Visit>
void ForEachOutput(IBaseFilter& filter, Visit visit) {
    ComPtr<IEnumPins> pins;
    Check(filter.EnumPins(pins.Put()), "cannot list pins");
    std::vector<ComPtr<IPin>> outputs;
    for (ComPtr<IPin> pin; pins->Next(1, pin.Put(), nullptr) == S_OK;) {
        PIN_DIRECTION direction = PINDIR_INPUT;
        if (pin->QueryDirection(&direction) == S_OK && direction == PINDIR_OUTPUT)
            outputs.push_back(std::move(pin));
    }
    for (const ComPtr<IPin>& pin : outputs)
        visit(pin);
}

}  // namespace

Outlets::Outlets(CFilterGraph& graph, const std::vector<ComPtr<IBaseFilter>>& filters, const DemuxRequest& request,
                 const DemuxPlan& plan, const InputFile& input)
    : m_graph(graph), m_request(request), m_plan(plan) {
    for (size_t i = 0; i < filters.size(); ++i)
        DeleteOtherPins(*filters[i], i);
    for (const StreamPlan& stream : plan.streams)
        if (stream.content)
            Add(stream, *filters[stream.splitter], input);
    // Only now: a splitter without an unconnected pin makes itself one, as long as there is room.
    for (const Outlet& outlet : m_outlets)
        Check(m_graph.ConnectDirect(outlet.pin.Get(), outlet.sink->GetPin(0).get(), nullptr), "cannot connect a pin");
}

bool Outlets::IsPlanned(uint32_t pid, size_t filter) const {
    return std::any_of(m_plan.streams.begin(), m_plan.streams.end(), [&](const StreamPlan& stream) {
        return stream.pid == pid && stream.splitter == filter && stream.content == Content::kElementary;
    });
}

void Outlets::DeleteOtherPins(IBaseFilter& filter, size_t index) const {
    const auto demultiplexer = ComPtr<IBaseFilter>(&filter).As<IMpeg2Demultiplexer>();
    ForEachOutput(filter, [&](const ComPtr<IPin>& pin) {
        if (const auto pid = PidOf(pin); pid && IsPlanned(*pid, index))
            return;
        PIN_INFO info;
        Check(pin->QueryPinInfo(&info), "a pin has no name");
        info.pFilter->Release();
        Check(demultiplexer ? demultiplexer->DeleteOutputPin(info.achName) : E_NOINTERFACE, "cannot delete a pin");
    });
}

void Outlets::Add(const StreamPlan& stream, IBaseFilter& filter, const InputFile& input) {
    Outlet outlet{&stream, nullptr, nullptr};
    std::unique_ptr<OutputFile> data, times;
    if (m_request.directory) {
        const std::string path = *m_request.directory + "/" + stream.FileName();
        data = std::make_unique<OutputFile>(path, input, kFileBuffer);
        if (m_request.timestamps && stream.content == Content::kElementary)
            times = std::make_unique<OutputFile>(path + ".csv", input, kFileBuffer);
    }
    const AM_MEDIA_TYPE type = TypeOf(stream);
    outlet.sink = ComPtr(new SinkFilter(type, std::move(data), std::move(times)));
    Check(m_graph.AddFilter(outlet.sink.Get(), nullptr), "cannot add a sink");
    if (stream.content == Content::kElementary)
        ForEachOutput(filter, [&](const ComPtr<IPin>& pin) {
            if (PidOf(pin) == stream.pid)
                outlet.pin = pin;
        });
    if (!outlet.pin) {
        const auto demultiplexer = ComPtr<IBaseFilter>(&filter).As<IMpeg2Demultiplexer>();
        AM_MEDIA_TYPE offered = type;
        Check(demultiplexer ? demultiplexer->CreateOutputPin(&offered, PinName(stream).c_str(), outlet.pin.Put())
                            : E_NOINTERFACE,
              "cannot make a pin");
        const auto map = outlet.pin.As<IMPEG2PIDMap>();
        const ULONG pid = stream.pid;
        Check(map ? map->MapPID(1, &pid, SampleContentOf(*stream.content)) : E_NOINTERFACE, "cannot map a PID");
    }
    m_outlets.push_back(std::move(outlet));
}

bool Outlets::AnyFailed() const {
    return std::any_of(m_outlets.begin(), m_outlets.end(),
                       [](const Outlet& outlet) { return outlet.sink->HasFailed(); });
}

int64_t Outlets::DeliveredBytes() const {
    int64_t bytes = 0;
    for (const Outlet& outlet : m_outlets)
        bytes += outlet.sink->Bytes();
    return bytes;
}

std::vector<StreamResult> Outlets::Close(const PacketMeter* meter) const {
    std::vector<StreamResult> streams;
    auto outlet = m_outlets.begin();
    for (const StreamPlan& plan : m_plan.streams) {
        StreamResult stream;
        stream.plan = plan;
        if (plan.content) {
            outlet->sink->CloseFiles();
            stream.counts = outlet->sink->Counts();
            stream.dropped = Dropped(*outlet, stream, meter);
            stream.packetsCame = meter == nullptr ? !plan.scrambled : meter->Of(plan.pid).packets != 0;
            stream.timeStampCame = meter == nullptr || meter->Of(plan.pid).timed;
            if (m_request.directory && stream.counts.bytes != 0)
                stream.file = plan.FileName();
            ++outlet;
        }
        streams.push_back(std::move(stream));
    }
    return streams;
}

std::optional<int64_t> Outlets::Dropped(const Outlet& outlet, const StreamResult& stream, const PacketMeter* meter) {
    if (stream.plan.content == Content::kSections) {
        const auto* const pin = dynamic_cast<const CTsOutputPin*>(outlet.pin.Get());
        const auto content = pin != nullptr ? pin->Content() : nullptr;
        return content ? std::optional(content->LostBytes()) : std::nullopt;
    }
    if (meter == nullptr)
        return std::nullopt;
    const PidCounts& counts = meter->Of(stream.plan.pid);
    const int64_t pushed = stream.plan.content == Content::kPackets ? counts.packets * kTransportPacketSize
                                                                    : counts.payload - counts.beforeStart;
    return std::max<int64_t>(pushed - stream.counts.bytes, 0);
}

}  // namespace tessel::tool
