#include "tools/tessel/DemuxRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "output/OutputMediaTypes.h"
#include "platform/media/MediaResult.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Pacer.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

namespace {

// Twenty streams must not take a megabyte each.
constexpr size_t kFileBuffer = 64 * 1024;
// In live mode the bytes go out a few packets at a time, as they were sent.
constexpr size_t kLivePiece = 28 * kTransportPacketSize;
constexpr DWORD kPoll = 100;
// The end of the stream has been sent, and nothing has come out for so long.
constexpr std::chrono::seconds kStalled{60};

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

void MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0777) == 0)
        return;
    const int error = errno;
    struct stat status {};
    if (error != EEXIST || stat(path.c_str(), &status) != 0)
        throw Failure(path + ": cannot make the directory: " + std::strerror(error) + "; choose another with -o");
    if (!S_ISDIR(status.st_mode))
        throw Failure(path + ": is no directory; choose another with -o");
}

// A stream of the plan on its way into its file.
struct Outlet {
    const StreamPlan* plan;
    std::optional<std::string> path;
    ComPtr<SinkFilter> sink;
    ComPtr<IPin> pin;
};

class Run {
public:
    Run(Feed& feed, const DemuxRequest& request, const DemuxPlan& plan)
        : m_feed(feed), m_request(request), m_plan(plan), m_pipeline(request.mode, plan.splitters) {
        // What is only measured is not slowed down by counting packets.
        if (request.directory || request.mode == StreamingMode::kLive)
            m_meter.emplace();
        for (size_t i = 0; i < m_pipeline.SplitterCount(); ++i)
            DeleteSparePin(i);
        for (const StreamPlan& stream : plan.streams)
            if (stream.content)
                AddOutlet(stream);
        // Only now: a splitter without an unconnected pin makes itself one, as long as there is room.
        for (const Outlet& outlet : m_outlets)
            Check(m_pipeline.Graph().ConnectDirect(outlet.pin.Get(), outlet.sink->GetPin(0).get(), nullptr),
                  "cannot connect a pin");
    }

    DemuxResult Do() {
        m_pipeline.Start();
        {
            Progress progress(m_feed.Input().Size());
            while (PushSome() && !AnyFailed()) {
                progress.Show(m_bytes);
                TakeEvents(0);
            }
            m_pipeline.End();
            WaitForEnd(progress);
        }
        m_pipeline.Stop();
        return Result();
    }

private:
    void DeleteSparePin(size_t splitter) {
        const auto demultiplexer = m_pipeline.SplitterAs<IMpeg2Demultiplexer>(splitter);
        Check(demultiplexer ? demultiplexer->DeleteOutputPin(u"Output1") : E_NOINTERFACE, "cannot delete a pin");
    }

    void AddOutlet(const StreamPlan& stream) {
        Outlet outlet{&stream, std::nullopt, nullptr, nullptr};
        std::unique_ptr<OutputFile> data, times;
        if (m_request.directory) {
            outlet.path = *m_request.directory + "/" + stream.FileName();
            data = std::make_unique<OutputFile>(*outlet.path, m_feed.Input(), kFileBuffer);
            if (m_request.timestamps && stream.content == Content::kElementary)
                times = std::make_unique<OutputFile>(*outlet.path + ".csv", m_feed.Input(), kFileBuffer);
        }
        const AM_MEDIA_TYPE type = TypeOf(stream);
        outlet.sink = ComPtr(new SinkFilter(type, std::move(data), std::move(times)));
        Check(m_pipeline.Graph().AddFilter(outlet.sink.Get(), nullptr), "cannot add a sink");

        const auto demultiplexer = m_pipeline.SplitterAs<IMpeg2Demultiplexer>(stream.splitter);
        AM_MEDIA_TYPE offered = type;
        Check(demultiplexer ? demultiplexer->CreateOutputPin(&offered, PinName(stream).c_str(), outlet.pin.Put())
                            : E_NOINTERFACE,
              "cannot make a pin");
        const auto map = outlet.pin.As<IMPEG2PIDMap>();
        const ULONG pid = stream.pid;
        Check(map ? map->MapPID(1, &pid, SampleContentOf(*stream.content)) : E_NOINTERFACE, "cannot map a PID");
        m_outlets.push_back(std::move(outlet));
    }

    // False at the end of the input, or once interrupted.
    bool PushSome() {
        const bool live = m_request.mode == StreamingMode::kLive;
        const auto bytes = m_pipeline.Read(m_feed, live ? kLivePiece : PushSource::kSampleSize);
        if (bytes.empty())
            return false;
        if (m_meter)
            m_meter->Push(bytes);
        if (live)
            Pace();
        m_pipeline.Push();
        m_bytes += static_cast<int64_t>(bytes.size());
        return true;
    }

    // Waits until the bytes that are about to go out are due.
    void Pace() {
        if (const auto& pcr = m_meter->LastPcr(); pcr && pcr->position != m_pcrPosition) {
            m_pcrPosition = pcr->position;
            if (!m_pacer.IsKnown())
                m_start = std::chrono::steady_clock::now();
            m_pacer.OnPcr(pcr->value, pcr->position);
        }
        if (!m_pacer.IsKnown())
            return;
        const auto elapsed = std::chrono::steady_clock::now() - m_start;
        const int64_t wait = m_pacer.DueAt(m_bytes) / kUnitsPerMillisecond -
                             std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
        if (wait > 0)
            SleepUnlessInterrupted(wait);
    }

    bool AnyFailed() const {
        return std::any_of(m_outlets.begin(), m_outlets.end(),
                           [](const Outlet& outlet) { return outlet.sink->HasFailed(); });
    }

    // True once every sink has told its end.
    bool TakeEvents(DWORD milliseconds) {
        MediaEvent event;
        while (m_pipeline.Graph().GetEvent(&event, milliseconds) == S_OK) {
            if (event.code == EC_COMPLETE)
                return true;
            m_errors += event.code == EC_ERRORABORT;
            milliseconds = 0;
        }
        return false;
    }

    void WaitForEnd(Progress& progress) {
        int64_t before = -1;
        auto since = std::chrono::steady_clock::now();
        while (!TakeEvents(kPoll) && !AnyFailed()) {
            progress.Show(m_bytes);
            int64_t delivered = 0;
            for (const Outlet& outlet : m_outlets)
                delivered += outlet.sink->Bytes();
            const auto now = std::chrono::steady_clock::now();
            if (delivered != before) {
                before = delivered;
                since = now;
            } else if (now - since > kStalled) {
                throw Failure("the streams did not come to an end; please report this with the input");
            }
        }
    }

    DemuxResult Result() {
        DemuxResult result;
        result.mode = m_request.mode;
        result.bytes = m_bytes;
        result.errors = m_errors;
        result.interrupted = Interrupted();
        if (m_meter)
            m_meter->Finish();
        auto outlet = m_outlets.begin();
        for (const StreamPlan& plan : m_plan.streams) {
            StreamResult stream;
            stream.plan = plan;
            if (plan.content) {
                outlet->sink->CloseFiles();
                stream.counts = outlet->sink->Counts();
                stream.dropped = Dropped(stream);
                stream.packetsCame = !m_meter || m_meter->Of(plan.pid).packets != 0;
                stream.timeStampCame = !m_meter || m_meter->Of(plan.pid).timed;
                Settle(*outlet, stream);
                ++outlet;
            }
            result.streams.push_back(std::move(stream));
        }
        return result;
    }

    std::optional<int64_t> Dropped(const StreamResult& stream) const {
        if (!m_meter || stream.plan.content == Content::kSections)
            return std::nullopt;
        const PidCounts& counts = m_meter->Of(stream.plan.pid);
        const int64_t pushed = stream.plan.content == Content::kPackets ? counts.packets * kTransportPacketSize
                                                                        : counts.payload - counts.beforeStart;
        return std::max<int64_t>(pushed - stream.counts.bytes, 0);
    }

    // Empty files would only look as if something were in them.
    void Settle(const Outlet& outlet, StreamResult& stream) const {
        if (!outlet.path)
            return;
        if (stream.counts.bytes != 0) {
            stream.file = stream.plan.FileName();
            return;
        }
        unlink(outlet.path->c_str());
        if (m_request.timestamps && stream.plan.content == Content::kElementary)
            unlink((*outlet.path + ".csv").c_str());
    }

    Feed& m_feed;
    const DemuxRequest& m_request;
    const DemuxPlan& m_plan;
    std::optional<PacketMeter> m_meter;
    std::vector<Outlet> m_outlets;
    Pipeline m_pipeline;  // behind what its threads use
    int64_t m_bytes = 0;
    int64_t m_errors = 0;
    Pacer m_pacer;
    int64_t m_pcrPosition = -1;
    std::chrono::steady_clock::time_point m_start;
};

}  // namespace

DemuxResult Demux(InputFile& input, const DemuxRequest& request) {
    if (request.directory)
        MakeDirectory(*request.directory);
    Feed feed(input);
    DemuxPlan plan;
    {
        PacketMeter meter;
        const FoundServices found =
            FindServices(feed, meter, [&](const ServiceInfo& service) { return request.Wants(service); });
        if (!meter.FoundPackets())
            throw Failure(NoStreamText(input));
        plan = MakePlan(request, found, meter);
    }
    feed.Restart();
    return Run(feed, request, plan).Do();
}

}  // namespace tessel::tool
