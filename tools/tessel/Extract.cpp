#include "tools/tessel/Extract.h"

#include <algorithm>

#include "tools/tessel/Failure.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/ServiceFinder.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

namespace {

// Writes what it is offered of its PIDs.
class ExtractSink final : public IPacketSink {
public:
    ExtractSink(std::vector<uint32_t> pids, ExtractWhat what, OutputFile& output)
        : m_pids(std::move(pids)), m_what(what), m_output(output) {}

    int DeliverPacket(const uint8_t* packet, const TsHeader&, const AdaptationFieldHeader&, bool) override {
        Write({packet, kTransportPacketSize});
        return 0;
    }
    int DeliverSection(const TsHeader& header, std::span<const uint8_t> section) override {
        if (m_what == ExtractWhat::kSections && std::find(m_pids.begin(), m_pids.end(), header.Pid()) != m_pids.end())
            Write(section);
        return 0;
    }
    std::vector<uint32_t> SectionPids() const override {
        return m_what == ExtractWhat::kSections ? m_pids : std::vector<uint32_t>();
    }

    int64_t Count() const { return m_count; }

private:
    void Write(std::span<const uint8_t> bytes) {
        m_output.Write(bytes);
        m_output.Keep();
        ++m_count;
    }

    const std::vector<uint32_t> m_pids;
    const ExtractWhat m_what;
    OutputFile& m_output;
    int64_t m_count = 0;
};

}  // namespace

void ReadOnlyPart(InputFile& input, const std::vector<uint32_t>& pids, const TimeSpan& span) {
    Feed feed(input);
    PacketMeter meter;
    const FoundServices found = FindServices(feed, meter, [](const ServiceInfo&) { return true; });
    if (!meter.FoundPackets())
        throw Failure(NoStreamText(input));
    std::optional<TimingStream> stream;
    for (const ServiceInfo& service : found.services) {
        const bool has = std::any_of(pids.begin(), pids.end(), [&](uint32_t pid) {
            return service.pmtPid == pid || std::any_of(service.components.begin(), service.components.end(),
                                                        [&](const auto& component) { return component.pid == pid; });
        });
        if (has && !stream)
            stream = FindTimingStream(found.services, service.id);
    }
    const ByteRange range =
        FindPart(input.Name(), stream ? stream : FindTimingStream(found.services), found.latePids, span);
    input.SetRange(range.begin, range.end);
}

int64_t Extract(InputFile& input, const std::vector<uint32_t>& pids, ExtractWhat what, OutputFile& output) {
    const ComPtr<StreamReader> reader = MakeStreamReader();
    ExtractSink sink(pids, what, output);
    reader->Router().Attach(&sink);
    for (const uint32_t pid : pids) {
        if (what == ExtractWhat::kPackets)
            reader->Router().Want(&sink, pid, true);
        else
            reader->AddTablePid(0xFFFFFFFF, 0, pid);
    }
    {
        Progress progress(input.Size());
        for (auto bytes = input.Read(); !bytes.empty(); bytes = input.Read()) {
            reader->Push(bytes);
            progress.Show(input.BytesRead());
        }
    }
    reader->Finish();
    reader->Router().Detach(&sink);
    if (!reader->FoundPackets())
        throw Failure(NoStreamText(input));
    output.Close();
    if (sink.Count() == 0)
        throw Failure(input.Name() + ": no " + (what == ExtractWhat::kPackets ? "clear packet" : "complete section") +
                      " on the PIDs asked for; `tessel info --pids` lists those that it has");
    return sink.Count();
}

}  // namespace tessel::tool
