#include "tools/tessel/inspect/Playback.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "platform/media/Mpeg2Demultiplexer.h"
#include "platform/os/Thread.h"
#include "proppages/PageFilter.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Services.h"

namespace tessel::tool {

namespace {

using namespace std::chrono_literals;

// A file goes out in pieces of so long, so that what is shown moves on evenly.
constexpr REFERENCE_TIME kPieceTime = 20 * kUnitsPerMillisecond;
constexpr int64_t kLeastPiece = 28 * kTransportPacketSize;
// Bytes a second: no stream of a clock that can be believed is faster, and of one without a clock nothing is known.
constexpr double kFastest = 25e6;
constexpr double kUnclocked = 1e6;
constexpr auto kInputPoll = 20ms;
constexpr auto kEndPoll = 200ms;
// Bytes that come in bursts are no wait.
constexpr auto kPatience = 500ms;

AM_MEDIA_TYPE MakeType(const GUID& major, const GUID& sub) {
    AM_MEDIA_TYPE type;
    type.majortype = major;
    type.subtype = sub;
    type.formattype = FORMAT_None;
    return type;
}

// Of the elementary stream that is mapped on a pin; none for other pins, and while no table lists it.
std::optional<AM_MEDIA_TYPE> TypeFor(const page::Filter& filter, const page::OutputPin& pin) {
    if (pin.Kind() != page::KindOf(MEDIA_ELEMENTARY_STREAM))
        return std::nullopt;
    const std::set<ULONG> mapped = pin.Mapped();
    for (const auto& service : filter.Services())
        for (const ComponentInfo& component : DescribeService(service.Get(), *filter.tables, false).components)
            if (component.media != nullptr && mapped.contains(component.pid))
                return MakeType(component.media->majortype, component.media->subtype);
    return std::nullopt;
}

}  // namespace

Playback::Playback(PlaybackInput input)
    : m_input(std::move(input)), m_feed(*m_input.file), m_pipeline(StreamingMode::kLive, 1) {
    m_feed.Restart();
    MakeOutputs();
}

Playback::~Playback() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_pipeline.Stop();
}

void Playback::MakeOutputs() {
    // A pin for packets, and those that choosing a service looks for; the tables have one already.
    const auto demultiplexer = m_pipeline.SplitterAs<IMpeg2Demultiplexer>(0);
    const auto create = [&](const GUID& major, const GUID& sub, const OLECHAR* name) {
        AM_MEDIA_TYPE type = MakeType(major, sub);
        ComPtr<IPin> pin;
        Check(demultiplexer->CreateOutputPin(&type, name, pin.Put()), "cannot make a pin");
        if (!Connect(pin.Get(), name, &type))
            throw Failure("cannot connect a pin");
    };
    create(MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, u"Video");
    create(MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, u"Audio");
    page::Filter filter;
    Check(filter.Connect(Splitter()), "cannot ask the splitter");
    for (const page::OutputPin& pin : filter.OutputPins())
        if (!pin.IsConnected() && !Connect(pin.pin.Get(), pin.name, nullptr))
            throw Failure("cannot connect a pin");
}

bool Playback::Connect(IPin* pin, const std::u16string& name, const AM_MEDIA_TYPE* type) {
    auto sink = ComPtr(new CountingSink());
    if (FAILED(m_pipeline.Graph().AddFilter(sink.Get(), nullptr)))
        return false;
    if (FAILED(m_pipeline.Graph().ConnectDirect(pin, sink->GetPin(0).get(), type))) {
        m_pipeline.Graph().RemoveFilter(sink.Get());
        return false;
    }
    const std::lock_guard lock(m_mutex);
    m_sinks[name] = std::move(sink);
    return true;
}

ComPtr<CountingSink> Playback::SinkOf(const std::u16string& pin) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_sinks.find(pin);
    return found != m_sinks.end() ? found->second : nullptr;
}

void Playback::ConnectMapped() {
    page::Filter filter;
    Check(filter.Connect(Splitter()), "cannot ask the splitter");
    std::vector<page::OutputPin> pins = filter.OutputPins();
    std::erase_if(pins, [this](const page::OutputPin& pin) {
        return pin.IsConnected() || pin.Mapped().empty() || m_refused.contains(pin.name);
    });
    if (pins.empty())
        return;
    // Before the tables go: a connected pin keeps to video, or to audio.
    std::vector<std::optional<AM_MEDIA_TYPE>> types;
    for (const page::OutputPin& pin : pins)
        types.push_back(TypeFor(filter, pin));
    m_pipeline.Stop();
    for (size_t i = 0; i < pins.size(); ++i)
        if (!Connect(pins[i].pin.Get(), pins[i].name, types[i] ? &*types[i] : nullptr))
            m_refused.insert(pins[i].name);  // once is enough: the graph stops for it
    m_pipeline.Start();
}

void Playback::Start() {
    m_thread = std::thread([this] {
        NameThread("inspect-feed");
        try {
            Run();
        } catch (const std::exception& error) {
            Fail(error.what());
        }
    });
}

void Playback::Fail(const std::string& text) {
    const std::lock_guard lock(m_mutex);
    m_error = text;
    m_state = PlaybackState::kFailed;
}

std::string Playback::Error() const {
    const std::lock_guard lock(m_mutex);
    return m_error;
}

bool Playback::Wait(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_for(lock, time, [this] { return m_stop; });
}

void Playback::Run() {
    m_pipeline.Start();
    while (Wait(0ms)) {
        if (m_connectWanted.exchange(false) && !m_ended)
            ConnectMapped();
        MediaEvent event;
        while (m_pipeline.Graph().GetEvent(&event, 0) == S_OK) {
        }
        if (!PlaySome() && !OnNoBytes())
            return;
    }
}

bool Playback::PlaySome() {
    if (m_ended && IsPipe())
        return false;
    // Waits here, and not in a read that nothing but bytes would end.
    if (!m_input.file->IsReady())
        return WaitForBytes();
    const auto bytes = m_pipeline.Read(m_feed, PieceSize());
    if (bytes.empty() && m_input.file->Unreadable())
        throw Failure(*m_input.file->Unreadable());
    if (bytes.empty())
        return false;
    if (m_bytes == 0 || m_state != PlaybackState::kPlaying)
        m_start = std::chrono::steady_clock::now() - DueTime();
    m_ended = false;
    m_state = PlaybackState::kPlaying;
    m_lastBytes = std::chrono::steady_clock::now();
    m_counter.Push(bytes);
    Pace();
    m_pipeline.Push();
    m_bytes += static_cast<int64_t>(bytes.size());
    return true;
}

size_t Playback::PieceSize() const {
    if (IsPipe())
        return PushSource::kSampleSize;
    const REFERENCE_TIME time = m_streamTime;
    if (time < 10 * kPieceTime)
        return static_cast<size_t>(kLeastPiece);
    const double perPiece = static_cast<double>(m_bytes - m_clockedBytes) / static_cast<double>(time) * kPieceTime;
    return static_cast<size_t>(std::clamp<double>(perPiece, kLeastPiece, PushSource::kSampleSize));
}

// Since the beginning, or as if it had played on all the time.
std::chrono::microseconds Playback::DueTime() const {
    const double slowest = static_cast<double>(m_bytes) / (m_streamTime > 0 ? kFastest : kUnclocked);
    const auto least = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::duration<double>(slowest));
    return std::max(least, std::chrono::microseconds(m_streamTime / 10));
}

void Playback::Pace() {
    if (const auto& pcr = m_counter.LastPcr(); pcr && pcr->position != m_pcrPosition) {
        m_pcrPosition = pcr->position;
        if (!m_pacer.IsKnown())
            m_clockedBytes = pcr->position;
        m_pacer.OnPcr(pcr->value, pcr->position);
    }
    if (m_pacer.IsKnown())
        m_streamTime = std::max<REFERENCE_TIME>(m_pacer.DueAt(m_bytes), 0);
    if (IsPipe())
        return;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_start + DueTime() - std::chrono::steady_clock::now());
    if (left > 0ms)
        Wait(left);
}

bool Playback::WaitForBytes() {
    if (std::chrono::steady_clock::now() - m_lastBytes > kPatience)
        m_state = PlaybackState::kWaiting;
    return Wait(kInputPoll);
}

bool Playback::OnNoBytes() {
    if (Interrupted())
        return false;
    if (m_input.filling && *m_input.filling)
        return WaitForBytes();
    if (m_input.loop && !IsPipe() && m_counter.Packets() != 0) {
        ++m_rounds;
        m_counter.Break();
        m_feed.Restart();
        return true;
    }
    if (!m_ended && IsPipe()) {
        m_counter.Finish();
        m_pipeline.End();
    }
    m_ended = true;
    m_state = PlaybackState::kEnded;
    return Wait(kEndPoll);
}

}  // namespace tessel::tool
