#include "tools/tessel/DemuxRun.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

#include "platform/media/MediaResult.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/FilePlayer.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Outlets.h"
#include "tools/tessel/Pacer.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

namespace {

// In live mode the bytes go out a few packets at a time, as they were sent.
constexpr size_t kLivePiece = 28 * kTransportPacketSize;
constexpr DWORD kPoll = 100;
// The end of the stream has been sent, and nothing has come out for so long.
constexpr std::chrono::seconds kStalled{60};

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

// What the runs share: the events of the graph and its end.
class Run {
public:
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

protected:
    Run(CFilterGraph& graph, const std::vector<ComPtr<IBaseFilter>>& filters, const InputFile& input,
        const DemuxRequest& request, const DemuxPlan& plan)
        : m_request(request), m_outlets(graph, filters, request, plan, input), m_graph(graph) {
        // What is only measured is not slowed down by counting packets.
        if ((request.directory && request.span.IsWhole()) || request.mode == StreamingMode::kLive)
            m_meter.emplace();
    }
    ~Run() = default;

    // True once every sink has told its end.
    bool TakeEvents(DWORD milliseconds) {
        MediaEvent event;
        while (m_graph.GetEvent(&event, milliseconds) == S_OK) {
            if (event.code == EC_COMPLETE)
                return true;
            if (event.code == EC_ERRORABORT && event.param1 == E_OUTOFMEMORY)
                throw std::bad_alloc();
            m_errors += event.code == EC_ERRORABORT && event.param1 != VFW_E_INVALID_FILE_FORMAT;
            milliseconds = 0;
        }
        return false;
    }

    // progress: something that grows as long as there is any.
    void CheckProgress(int64_t progress) {
        const auto now = std::chrono::steady_clock::now();
        if (progress != m_progress) {
            m_progress = progress;
            m_since = now;
        } else if (now - m_since > kStalled) {
            throw Failure("the streams did not come to an end; please report this with the input");
        }
    }

    DemuxResult Result(int64_t bytes) {
        DemuxResult result;
        result.mode = m_request.mode;
        result.bytes = bytes;
        result.errors = m_errors;
        result.interrupted = Interrupted();
        if (m_meter)
            m_meter->Finish();
        result.streams = m_outlets.Close(m_meter ? &*m_meter : nullptr);
        return result;
    }

    const DemuxRequest& m_request;
    Outlets m_outlets;
    std::optional<PacketMeter> m_meter;

private:
    CFilterGraph& m_graph;
    int64_t m_errors = 0;
    int64_t m_progress = -1;
    std::chrono::steady_clock::time_point m_since;
};

// The tool reads and pushes.
class PushRun : private Run {
public:
    PushRun(Pipeline& pipeline, Feed& feed, const DemuxRequest& request, const DemuxPlan& plan)
        : Run(pipeline.Graph(), pipeline.Splitters(), feed.Input(), request, plan),
          m_feed(feed),
          m_pipeline(pipeline) {}
    // No thread may use the sinks when they go.
    ~PushRun() { m_pipeline.Stop(); }

    DemuxResult Do() {
        m_pipeline.Start();
        {
            Progress progress(m_feed.Input().Size());
            while (PushSome() && !m_outlets.AnyFailed()) {
                progress.Show(m_bytes);
                TakeEvents(0);
            }
            m_pipeline.End();
            while (!TakeEvents(kPoll) && !m_outlets.AnyFailed()) {
                progress.Show(m_bytes);
                CheckProgress(m_outlets.DeliveredBytes());
            }
        }
        m_pipeline.Stop();
        return Result(m_bytes);
    }

private:
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

    Feed& m_feed;
    Pipeline& m_pipeline;
    int64_t m_bytes = 0;
    Pacer m_pacer;
    int64_t m_pcrPosition = -1;
    std::chrono::steady_clock::time_point m_start;
};

// File sources read by themselves; the tool counts packets behind them.
class FileRun : private Run {
public:
    FileRun(FilePlayer& player, Feed& feed, const DemuxRequest& request, const DemuxPlan& plan)
        : Run(player.Graph(), player.Filters(), feed.Input(), request, plan), m_player(player), m_feed(feed) {}
    ~FileRun() { m_player.Stop(); }

    DemuxResult Do() {
        m_player.Start();
        {
            Progress progress(m_request.span.IsWhole() ? m_feed.Input().Size() : std::nullopt);
            while (!TakeEvents(Count() ? 0 : kPoll) && !m_outlets.AnyFailed()) {
                const int64_t position = m_player.ReadPosition();
                progress.Show(position);
                CheckProgress(position + m_outlets.DeliveredBytes());
                if (Interrupted())
                    m_player.End();
            }
        }
        m_player.Stop();
        const bool aborted = m_player.WasAborted();
        // What was not played was not delivered either. An interrupt ends the counting too.
        while (!Interrupted() && (Count() || (aborted && CountSome(PushSource::kSampleSize)))) {
        }
        if (Interrupted())
            m_meter.reset();
        DemuxResult result = Result(m_player.BytesRead());
        result.aborted = aborted;
        return result;
    }

private:
    // False when what has been played is counted.
    bool Count() {
        const int64_t left = m_player.ReadPosition() - m_counted;
        return left > 0 && CountSome(static_cast<size_t>(std::min<int64_t>(left, PushSource::kSampleSize)));
    }
    bool CountSome(size_t atMost) {
        if (!m_meter)
            return false;
        m_buffer.resize(atMost);
        m_buffer.resize(m_feed.Fill(m_buffer));
        m_meter->Push(m_buffer);
        m_counted += static_cast<int64_t>(m_buffer.size());
        return !m_buffer.empty();
    }

    FilePlayer& m_player;
    Feed& m_feed;
    std::vector<uint8_t> m_buffer;
    int64_t m_counted = 0;
};

}  // namespace

DemuxResult Demux(InputFile& input, const DemuxRequest& request) {
    if (request.directory)
        MakeDirectory(*request.directory);
    Feed feed(input);
    DemuxPlan plan;
    FoundServices found;
    {
        PacketMeter meter;
        found = FindServices(feed, meter, [&](const ServiceInfo& service) { return request.Wants(service); });
        if (!meter.FoundPackets())
            throw Failure(NoStreamText(input));
        plan = MakePlan(request, found, meter);
    }
    feed.Restart();
    std::string why;
    if (request.mode == StreamingMode::kFile) {
        if (const auto player = FilePlayer::Open(input.Name(), plan.splitters, found.latePids, &why)) {
            if (request.service)
                player->SelectService(plan);
            if (!request.span.IsWhole())
                player->SeekToPart(plan, found.services, request.span, input.Name());
            DemuxResult result = FileRun(*player, feed, request, plan).Do();
            if (const auto position = player->Unreadable())
                input.NoteUnreadable(*position, EIO);
            return result;
        }
    }
    if (!request.span.IsWhole())
        throw CannotCut(input.Name(), why);
    DemuxRequest pushed = request;
    if (request.mode == StreamingMode::kFile)
        pushed.mode = StreamingMode::kRecording;
    Pipeline pipeline(pushed.mode, plan.splitters, found.latePids);
    DemuxResult result = PushRun(pipeline, feed, pushed, plan).Do();
    if (input.CanRewind())  // nobody expects a pipe to be played
        result.whyPushed = why;
    return result;
}

}  // namespace tessel::tool
