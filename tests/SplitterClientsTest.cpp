// What clients of the splitter are told, and its pins.
#include <gmock/gmock.h>

#include <cstdio>

#include "platform/media/MediaResult.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::ProgrammeBuilder;
using build::Video;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

ProgrammeBuilder TwoStreams() {
    return ProgrammeBuilder({{.streams = {Video(0x111), Audio(0x112)}}});
}

// Writes down what it is told.
class EventLog final : public CUnknown, public IDvbTableEvents2, public IDvbPidMapperEvents {
public:
    EventLog() : CUnknown("EventLog", nullptr) {}
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (iid == IDvbTableEvents2::kIid)
            return GetInterface<IDvbTableEvents2>(this, out);
        if (iid == IDvbPidMapperEvents::kIid)
            return GetInterface<IDvbPidMapperEvents>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }
    HRESULT OnServicesReady() override { return Add(events, "services"); }
    HRESULT OnReset() override { return Add(events, "reset"); }
    HRESULT OnTableReady(uint32_t id, uint32_t key) override { return Add(events, "ready", id, key); }
    HRESULT OnTableStale(uint32_t id, uint32_t key) override { return Add(events, "stale", id, key); }
    HRESULT OnPidUsed(uint32_t id, uint32_t pid) override { return Add(pids, "used", id, pid); }
    HRESULT OnPidsReset() override { return Add(pids, "reset"); }

    using Lines = std::vector<std::string>;
    // The lines that came, once there are so many.
    Lines Take(Lines& lines, size_t count) {
        EXPECT_TRUE(Eventually([&] {
            const std::lock_guard lock(m_mutex);
            return lines.size() >= count;
        }));
        const std::lock_guard lock(m_mutex);
        return std::exchange(lines, {});
    }
    Lines events;
    Lines pids;

private:
    HRESULT Add(Lines& lines, const char* what) {
        const std::lock_guard lock(m_mutex);
        lines.emplace_back(what);
        return E_FAIL;  // nobody cares
    }
    HRESULT Add(Lines& lines, const char* what, uint32_t first, uint32_t second) {
        char text[40];
        std::snprintf(text, sizeof(text), "%s %X %X", what, first, second);
        return Add(lines, text);
    }
    std::mutex m_mutex;
};

TEST(Splitter, TellsItsSinksInOrder) {
    SplitterGraph graph;
    const auto log = MakeObject<EventLog>();
    const auto silent = MakeObject<EventLog>();
    auto* const sink = static_cast<IDvbTableEvents2*>(log.Get());
    uint32_t cookie = 7;
    EXPECT_EQ(graph.splitter->AdviseEvents(nullptr, &cookie), E_POINTER);
    for (const uint32_t expected : {0u, 1u}) {
        EXPECT_EQ(graph.splitter->AdviseEvents(static_cast<IDvbTableEvents2*>(silent.Get()), &cookie), S_OK);
        EXPECT_EQ(cookie, expected);
        EXPECT_EQ(graph.splitter->UnadviseEvents(cookie), S_OK);
        EXPECT_EQ(graph.splitter->UnadviseEvents(cookie), E_INVALIDARG);
    }
    EXPECT_EQ(graph.splitter->AdviseEvents(sink, &cookie), S_OK);
    EXPECT_EQ(cookie, 2u);
    EXPECT_EQ(graph.splitter->Advise(sink, &cookie), S_OK);
    EXPECT_EQ(cookie, 0u);
    ASSERT_EQ(graph.Run(), S_OK);
    const EventLog::Lines defaults = {"used 0 0", "used 42 11", "used C7 1FFB", "reset"};
    EXPECT_EQ(log->Take(log->pids, 4), defaults);

    ProgrammeBuilder builder = TwoStreams();
    const auto names = [&builder](uint8_t version) {
        const Bytes sdt =
            build::Sdt({.transportStreamId = 1, .originalNetworkId = 3, .services = {{1}}}, {.version = version});
        builder.stream().Section(0x11, sdt).Section(0x11, build::ShortSection(0xFE, {}));
        return builder.Padding().Take();
    };
    ASSERT_EQ(graph.source->Push(builder.Tables().Padding().Take()), S_OK);
    EXPECT_THAT(log->Take(log->events, 2), ElementsAre("ready 0 1", "ready 2 1"));
    EXPECT_THAT(log->Take(log->pids, 3), ElementsAre("used 42 11", "used C7 1FFB", "used 2 100"));
    ASSERT_EQ(graph.source->Push(names(0)), S_OK);
    EXPECT_THAT(log->Take(log->events, 2), ElementsAre("ready 42 30001", "services"));
    EXPECT_EQ(graph.splitter->IsServiceInformationComplete(), S_OK);
    builder.programmes()[0].pmtVersion = 1;
    builder.Tables();
    ASSERT_EQ(graph.source->Push(names(1)), S_OK);
    EXPECT_THAT(log->Take(log->events, 4), ElementsAre("stale 2 1", "ready 2 1", "stale 42 30001", "ready 42 30001"));

    // The services of another transport stream are announced once more.
    ProgrammeBuilder other({{.number = 1, .streams = {Video(0x111)}}}, 2);
    other.Tables();  // lost: its counters begin anew
    other.Tables().stream().Section(0x11, build::Sdt({.transportStreamId = 2, .services = {{1}}}));
    other.stream().Section(0x11, build::ShortSection(0xFE, {}));
    ASSERT_EQ(graph.source->Push(other.Padding().Take()), S_OK);
    EXPECT_THAT(log->Take(log->events, 4), UnorderedElementsAre("ready 0 2", "ready 2 1", "ready 42 2", "services"));
    EXPECT_THAT(log->Take(log->pids, 3), ElementsAre("used 42 11", "used C7 1FFB", "used 2 100"));

    ComPtr<IDvbTable> table;
    const std::pair<uint32_t, HRESULT> answers[] = {
        {0x00, S_OK}, {0x02, S_OK}, {0x42, S_OK}, {0xC7, E_NOINTERFACE}, {0x40, E_NOTIMPL}};
    for (const auto& [id, result] : answers)
        EXPECT_EQ(graph.splitter->GetTable(id, table.Put()), result) << id;
    EXPECT_EQ(graph.splitter->GetTable(0, nullptr), E_POINTER);
    ComPtr<IDvbProgramMapTable> program;
    EXPECT_EQ(graph.splitter->GetProgramMapTable(1, program.Put()), S_OK);
    EXPECT_TRUE(FAILED(graph.splitter->GetProgramMapTable(2, program.Put())));
    EXPECT_EQ(graph.splitter->GetProgramMapTable(1, nullptr), E_POINTER);

    EXPECT_EQ(graph.splitter->Reset(), S_OK);
    EXPECT_THAT(log->Take(log->events, 1), ElementsAre("reset"));
    EXPECT_EQ(log->Take(log->pids, 4), defaults);
    EXPECT_EQ(graph.splitter->GetTable(0, table.Put()), E_NOINTERFACE);
    EXPECT_EQ(graph.graph->Stop(), S_OK);
    EXPECT_TRUE(silent->events.empty());
}

// A sink that another one takes out is called no more.
TEST(SinkList, AsksBeforeEachCall) {
    CSinkList sinks;
    uint32_t cookies[2];
    for (uint32_t& cookie : cookies)
        ASSERT_EQ(sinks.Advise(static_cast<IDvbTableEvents2*>(MakeObject<EventLog>().Get()), &cookie), S_OK);
    int calls = 0;
    sinks.ForEach([&](IUnknown&) {
        ++calls;
        EXPECT_EQ(sinks.Unadvise(cookies[1]), S_OK);
    });
    EXPECT_EQ(calls, 1);
}

TEST(Splitter, PinsComeAndGo) {
    SplitterGraph graph;
    EXPECT_EQ(graph.splitter->GetPinCount(), 3);
    ASSERT_TRUE(graph.Pin(u"PSIOut") && graph.Pin(u"Output1"));
    const auto sink = MakeObject<TestSink>();
    ASSERT_EQ(graph.graph->AddFilter(sink.Get(), nullptr), S_OK);
    ASSERT_EQ(graph.graph->ConnectDirect(graph.Pin(u"PSIOut").get(), &sink->In(), nullptr), S_OK);
    EXPECT_EQ(graph.splitter->GetPinCount(), 3);
    const auto other = MakeObject<TestSink>();
    ASSERT_EQ(graph.graph->AddFilter(other.Get(), nullptr), S_OK);
    ASSERT_EQ(graph.graph->ConnectDirect(graph.Pin(u"Output1").get(), &other->In(), nullptr), S_OK);
    EXPECT_TRUE(graph.Pin(u"Output2")) << "one is always free";

    ComPtr<IPin> pin;
    AM_MEDIA_TYPE unknown = MakeMediaType(MEDIATYPE_Video, GUID_NULL);
    AM_MEDIA_TYPE video = MakeMediaType(MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
    const auto& demultiplexer = graph.demultiplexer;
    EXPECT_EQ(demultiplexer->CreateOutputPin(nullptr, nullptr, pin.Put()), E_POINTER);
    EXPECT_EQ(demultiplexer->CreateOutputPin(nullptr, u"x", nullptr), E_POINTER);
    EXPECT_EQ(demultiplexer->CreateOutputPin(nullptr, u"", pin.Put()), E_INVALIDARG);
    EXPECT_EQ(demultiplexer->CreateOutputPin(nullptr, std::u16string(50, u'x').c_str(), pin.Put()), E_INVALIDARG);
    EXPECT_EQ(demultiplexer->CreateOutputPin(nullptr, u"Output1", pin.Put()), VFW_E_DUPLICATE_NAME);
    EXPECT_EQ(demultiplexer->CreateOutputPin(&unknown, u"x", pin.Put()), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_FALSE(graph.Pin(u"x"));
    for (char16_t name[] = u"a"; graph.splitter->GetPinCount() < 11; ++name[0])
        EXPECT_EQ(demultiplexer->CreateOutputPin(&video, name, pin.Put()), S_OK);
    EXPECT_EQ(demultiplexer->CreateOutputPin(&video, u"x", pin.Put()), E_FAIL);
    EXPECT_EQ(demultiplexer->DeleteOutputPin(u"x"), E_FAIL);
    EXPECT_EQ(demultiplexer->DeleteOutputPin(nullptr), E_POINTER);
    EXPECT_EQ(demultiplexer->SetOutputPinMediaType(u"x", &video), E_FAIL);
    EXPECT_EQ(demultiplexer->SetOutputPinMediaType(u"a", &video), S_FALSE);
    ASSERT_EQ(graph.Run(), S_OK);
    EXPECT_EQ(demultiplexer->DeleteOutputPin(u"Output1"), S_OK);
    EXPECT_FALSE(graph.Pin(u"Output1"));
    ASSERT_EQ(graph.source->Push(TwoStreams().Tables().Frames(10).Take()), S_OK);
    EXPECT_EQ(graph.End(), S_OK);
    EXPECT_TRUE(sink->WaitForEnd());
}

TEST(Splitter, OnlyLiveOnesAreAClock) {
    for (const StreamingMode mode : {StreamingMode::kLive, StreamingMode::kStream, StreamingMode::kRecording}) {
        SplitterGraph graph(mode);
        const ComPtr<IBaseFilter> filter(graph.splitter.Get());
        EXPECT_EQ(static_cast<bool>(filter.As<IReferenceClock>()), mode == StreamingMode::kLive);
        ComPtr<IBaseFilter> made;
        ASSERT_EQ(CreateTsSplitter(mode, made.Put()), S_OK);
        EXPECT_EQ(dynamic_cast<CTsFilterBase&>(*made).ModeParameter(), mode == StreamingMode::kRecording ? 0 : 1);
        EXPECT_EQ(static_cast<bool>(ComPtr<IPin>(graph.Pin(u"Output1").get()).As<IAMPushSource>()),
                  mode == StreamingMode::kLive);
    }
}

}  // namespace
}  // namespace tessel
