// The contents of output pins in a graph: when all start, and who waits for whom.
#include <gmock/gmock.h>

#include <algorithm>
#include <thread>

#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::kPacketSize;
using build::ProgrammeBuilder;
using build::Video;
using testing::ElementsAre;

constexpr uint16_t kPid = 0x111;
constexpr uint16_t kOtherPid = 0x112;

TestSink& AddPackets(SplitterGraph& graph, std::vector<ULONG> pids) {
    return graph.Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, std::move(pids), MEDIA_TRANSPORT_PACKET);
}

// Every byte of the stream has come, and the end.
void ExpectWhole(TestSink& sink, ProgrammeBuilder& builder, uint16_t pid) {
    ASSERT_TRUE(sink.WaitForEnd());
    EXPECT_TRUE(sink.Bytes() == builder.Payload(pid));
}

TEST(StartSync, TheFirstAudioIsTheStartOfAll) {
    struct {
        const char* what;
        std::vector<int64_t> offsets;  // of video and, when there is one, audio
        std::vector<REFERENCE_TIME> video;
    } const cases[] = {{"video alone", {0}, {0, 400'000, 800'000, 1'200'000}},
                       {"audio later", {0, 10'000}, {-1'111'111, -711'111, -311'111, 88'888}},
                       {"audio earlier", {9'000, 0}, {1'000'000, 1'400'000, 1'800'000, 2'200'000}}};
    for (const auto& [what, offsets, expected] : cases) {
        SCOPED_TRACE(what);
        SplitterGraph graph;
        TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        build::Programme programme{.streams = {Video(kPid)}};
        programme.streams[0].ptsOffset = offsets[0];
        TestSink* audio = nullptr;
        if (offsets.size() > 1) {
            programme.streams.push_back(Audio(kOtherPid));
            programme.streams[1].ptsOffset = offsets[1];
            audio = &graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
        }
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({programme});
        // Before the first time stamp of a start, audio is not delivered, and video goes with the picture behind it.
        const Bytes before(184, 0xAA);
        builder.Tables().stream().Packet(kOtherPid, before).Packet(kPid, before);
        ASSERT_EQ(graph.source->Push(builder.Frames(30).Padding().Take()), S_OK);
        ASSERT_EQ(graph.End(), S_OK);
        ASSERT_TRUE(video.WaitForEnd());
        EXPECT_TRUE(video.Bytes() == build::Join({before, builder.Payload(kPid)}));
        const auto samples = video.Samples();
        ASSERT_EQ(samples.size(), 30u);
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(samples[i].time, expected[i]);
            EXPECT_EQ(samples[i].preroll, expected[i] < 0);
            EXPECT_TRUE(samples[i].syncPoint && !samples[i].mediaTime);
        }
        if (audio != nullptr) {
            ExpectWhole(*audio, builder, kOtherPid);
            EXPECT_EQ(audio->Times()[0], 0);
        }
    }
}

// Holds a sink's deliveries until the test opens it.
class Gate {
public:
    explicit Gate(TestSink& sink) {
        sink.OnSample([this](IMediaSample& sample) {
            if (!m_reached.IsSet())
                m_length = sample.GetActualDataLength();
            m_reached.Set();
            EXPECT_TRUE(m_open.Wait(kTestWait)) << "waited for the gate";
            return S_OK;
        });
    }
    ~Gate() { Open(); }
    bool WaitUntilReached() { return m_reached.Wait(kTestWait); }
    void Open() { m_open.Set(); }
    // Bytes of the first sample that it held.
    int32_t Length() const { return m_length; }

private:
    std::atomic<int32_t> m_length{0};
    CEvent m_reached{EventReset::kManual};
    CEvent m_open{EventReset::kManual};
};

// Time stamps that are wrong from one frame on while the clock is right. All of it has been parsed, to the last PCR,
// before the outputs come to see it.
TEST(WrongTimes, CostTheTimeOfOneSampleAndNoByte) {
    constexpr size_t kFrames = 40;
    struct {
        const char* what;
        size_t stream;  // of video and audio
        size_t from;
        size_t count;
        int64_t by;  // 90 kHz
        size_t times[2];
    } const cases[] = {
        {"one picture", 0, 20, 1, 900'000, {39, 40}},          {"one frame of sound", 1, 20, 1, 900'000, {40, 39}},
        {"the first picture", 0, 0, 1, 900'000'000, {40, 40}}, {"the first sound", 1, 0, 1, 900'000'000, {40, 39}},
        {"pictures go ahead", 0, 20, 20, 900'000, {39, 40}},   {"pictures go back", 0, 20, 20, -900'000, {39, 40}},
        {"pictures are ahead", 0, 0, 40, 900'000, {40, 40}},   {"sound goes ahead", 1, 20, 20, 900'000, {40, 39}},
        {"sound goes back", 1, 20, 20, -900'000, {40, 39}}};
    for (const auto& [what, stream, from, count, by, times] : cases) {
        SCOPED_TRACE(what);
        SplitterGraph graph;
        TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
        Gate gates[] = {Gate(video), Gate(audio)};
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid, 6'000), Audio(kOtherPid, 500)}}});
        int64_t& offset = builder.programmes()[0].streams[stream].ptsOffset;
        builder.SetTime(1'000'000'000).Tables().Frames(from);
        offset = by;
        builder.Frames(count);
        offset = 0;
        ASSERT_EQ(graph.source->Push(builder.Frames(kFrames - from - count).Padding().Take()), S_OK);
        ASSERT_EQ(graph.End(), S_OK);
        for (Gate& gate : gates)
            gate.Open();
        ExpectWhole(video, builder, kPid);
        ExpectWhole(audio, builder, kOtherPid);
        EXPECT_EQ(video.Times().size(), times[0]);
        EXPECT_EQ(audio.Times().size(), times[1]);
    }
}

// A receiver that wants no more, or an output that nothing is mapped on any more, holds nobody up behind a jump.
TEST(StartSync, PassesOverOutputsThatGetNothing) {
    for (const bool refused : {true, false}) {
        SCOPED_TRACE(refused ? "refused" : "unmapped");
        SplitterGraph graph;
        TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
        video.OnSample([&](IMediaSample&) { return refused ? S_FALSE : S_OK; });
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid, 6'000), Audio(kOtherPid, 4'000)}}});
        ASSERT_EQ(graph.source->Push(builder.Tables().Frames(30).Take()), S_OK);
        if (refused) {
            ASSERT_TRUE(video.WaitForRest());
        } else {
            ASSERT_TRUE(video.WaitForSamples(1));
            const ULONG pid = kPid;
            ASSERT_EQ(graph.Pin(u"v")->UnmapPID(1, &pid), S_OK);
        }
        ASSERT_EQ(graph.source->Push(builder.SetTime(50'000'000).Frames(30).Padding().Take()), S_OK);
        EXPECT_TRUE(Eventually([&] { return audio.Bytes().size() > 55 * 4'000; })) << "behind the jump";
        ASSERT_EQ(graph.End(), S_OK);
        ExpectWhole(audio, builder, kOtherPid);
    }
}

TEST(BackPressure, ARecordingWaitsForAStalledReceiver) {
    SplitterGraph graph(StreamingMode::kRecording);
    TestSink& sink = AddPackets(graph, {ALL_PIDS});
    Gate gate(sink);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid, 100'000)}}});
    const Bytes stream = builder.Tables().Frames(80).Take();
    std::thread pusher([&] {
        EXPECT_EQ(graph.source->Push(stream), S_OK);
        EXPECT_EQ(graph.End(), S_OK);
    });
    const auto content = graph.Pin(u"t")->Content();
    EXPECT_TRUE(Eventually([&] { return content->QueuedBytes() > 0x300000 - 188; })) << "a full buffer";
    gate.Open();
    pusher.join();
    ASSERT_TRUE(sink.WaitForEnd());
    const Bytes received = sink.Bytes();
    // The last packet has no sync byte behind it.
    EXPECT_EQ(received.size(), stream.size() - kPacketSize);
    EXPECT_TRUE(std::equal(received.begin(), received.end(), stream.begin()));
    for (const ReceivedSample& sample : sink.Samples())
        EXPECT_TRUE(sample.bytes.size() % kPacketSize == 0 && sample.bytes.size() <= 75'200 && !sample.time);
}

TEST(BackPressure, LiveDropsForAStalledReceiver) {
    for (const bool packets : {true, false}) {
        SCOPED_TRACE(packets ? "packets" : "video");
        SplitterGraph graph(StreamingMode::kLive);
        TestSink& sink = packets ? AddPackets(graph, {ALL_PIDS})
                                 : graph.AddStream(u"t", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        Gate gate(sink);
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid, 130'000)}}});
        Bytes stream = builder.Tables().Frames(5).Take();
        ASSERT_EQ(graph.source->Push(stream), S_OK);
        ASSERT_TRUE(gate.WaitUntilReached());
        const Bytes rest = builder.Frames(55).Padding().Take();
        stream.insert(stream.end(), rest.begin(), rest.end());
        ASSERT_EQ(graph.source->Push(rest), S_OK);
        ASSERT_EQ(graph.End(), S_OK);  // has all parsed, and waits for nobody
        gate.Open();
        ASSERT_TRUE(sink.WaitForEnd());
        const Bytes received = sink.Bytes();
        const Bytes& sent = packets ? stream : builder.Payload(kPid);
        ASSERT_LT(received.size(), sent.size());
        EXPECT_GT(received.size(), 2'000'000u);
        const auto samples = sink.Samples();
        const auto discontinuities =
            std::count_if(samples.begin(), samples.end(), [](const auto& sample) { return sample.discontinuity; });
        if (packets) {
            EXPECT_TRUE(std::equal(received.begin(), received.end(), sent.begin()));
            EXPECT_EQ(discontinuities, 1);
        } else {
            EXPECT_TRUE(std::equal(received.end() - 130'000, received.end(), sent.end() - 130'000));
            EXPECT_GE(discontinuities, 2);
        }
    }
}

TEST(PsiStream, TwentySectionsWaitAndTheNextOneIsUpToTheMode) {
    constexpr uint16_t kSectionPid = 0x12;
    for (const StreamingMode mode : {StreamingMode::kRecording, StreamingMode::kLive}) {
        SplitterGraph graph(mode);
        TestSink& sink =
            graph.Add(u"p", MEDIATYPE_MPEG2_SECTIONS, MEDIASUBTYPE_SECTIONS_WITH_PID, {kSectionPid}, MEDIA_MPEG2_PSI);
        std::mutex mutex;
        std::vector<ComPtr<IMediaSample>> held;
        bool holds = true;
        sink.OnSample([&](IMediaSample& sample) {
            const std::lock_guard lock(mutex);
            if (holds)
                held.emplace_back(&sample);
            return S_OK;
        });
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
        builder.Tables();
        std::vector<Bytes> sections;
        for (uint8_t i = 0; i < 25; ++i)
            sections.push_back(build::LongSection(0x4E, i, Bytes(1'012, i)));
        builder.stream().Sections(kSectionPid, sections);
        // One that no buffer has room for, with its PID in front of it.
        builder.stream().Section(kSectionPid, build::LongSection(0x4E, 99, Bytes(4'086)));
        builder.stream().Section(kSectionPid, build::ShortSection(0xFE, {}));
        const Bytes stream = builder.Padding().Take();
        std::thread pusher([&] {
            EXPECT_EQ(graph.source->Push(stream), S_OK);
            EXPECT_EQ(graph.End(), S_OK);
        });
        EXPECT_TRUE(sink.WaitForSamples(20));
        if (mode == StreamingMode::kLive)
            pusher.join();
        {
            const std::lock_guard lock(mutex);
            EXPECT_EQ(held.size(), 20u);
            holds = false;
            held.clear();
        }
        if (pusher.joinable())
            pusher.join();
        ASSERT_TRUE(sink.WaitForEnd());
        const auto samples = sink.Samples();
        const size_t expected = mode == StreamingMode::kLive ? 20 : 26;
        ASSERT_EQ(samples.size(), expected);
        for (size_t i = 0; i < std::min<size_t>(expected, 25); ++i) {
            ASSERT_EQ(samples[i].bytes.size(), 1'026u);
            EXPECT_EQ(samples[i].bytes[0] << 8 | samples[i].bytes[1], kSectionPid);
            EXPECT_TRUE(std::equal(sections[i].begin(), sections[i].end(), samples[i].bytes.begin() + 2));
            EXPECT_TRUE(samples[i].syncPoint && !samples[i].time);
        }
    }
}

// More than fits comes before the first program map table, which only the parser can bring.
TEST(BackPressure, NobodyWaitsForWhatWaitsForItsProgram) {
    constexpr uint16_t kSectionPid = 0x12;
    for (const auto& [sections, waits] : {std::pair(false, true), {false, false}, {true, true}, {true, false}}) {
        SCOPED_TRACE(testing::Message() << (sections ? "sections" : "packets") << (waits ? "" : " that wait for none"));
        SplitterGraph graph;
        graph.splitter->SetRules({.packetsWaitForProgram = waits});
        TestSink& sink =
            sections ? graph.Add(u"t", MEDIATYPE_MPEG2_SECTIONS, GUID_NULL, {ALL_TABLES, kSectionPid}, MEDIA_MPEG2_PSI)
                     : AddPackets(graph, {0x100, kPid});
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
        const Bytes section = build::LongSection(0x4E, 1, Bytes(1'012));
        const auto add = [&, sections = sections](size_t count) {
            for (size_t i = 0; i < count; ++i)
                if (sections)
                    builder.stream().Section(kSectionPid, section);
                else
                    builder.stream().Packet(kPid, Bytes(184));
        };
        const size_t before = sections ? 25 : 17'000;
        add(before);
        builder.Tables();
        add(10);
        const Bytes stream = builder.Padding().Take();
        std::thread pusher([&] {
            EXPECT_EQ(graph.source->Push(stream), S_OK);
            EXPECT_EQ(graph.End(), S_OK);
        });
        EXPECT_TRUE(sink.WaitForEnd());
        const int64_t lost = graph.Pin(u"t")->Content()->LostBytes();
        EXPECT_EQ(graph.graph->Stop(), S_OK);
        pusher.join();
        size_t received = 0;
        std::vector<size_t> discontinuities;
        for (const ReceivedSample& sample : sink.Samples()) {
            if (sample.discontinuity)
                discontinuities.push_back(received);
            received += sections ? 1 : sample.bytes.size() / kPacketSize;
        }
        // With two packets of a table, or two tables; but the first PAT and the end of the stream cut off a section.
        const size_t sent = before + 10 + (sections ? 0 : 2);
        if (waits) {
            const size_t room = sections ? 20 : 0x300000 / kPacketSize;
            EXPECT_THAT(discontinuities, ElementsAre(0, room));
            EXPECT_GT(lost, 0);
        } else {
            EXPECT_THAT(discontinuities, ElementsAre(0));
            EXPECT_EQ(received, sent);
        }
        const size_t unit = sections ? section.size() : kPacketSize;
        EXPECT_EQ(received + (static_cast<size_t>(lost) + unit - 1) / unit, sent) << "the PAT is smaller";
    }
}

// A delivery thread that waits for a buffer when the stream is reset must not go on with what came later.
TEST(Reset, ASenderThatWaitsForABufferStartsAnew) {
    SplitterGraph graph;
    TestSink& sink = AddPackets(graph, {kPid});
    std::mutex mutex;
    ComPtr<IMediaSample> held;
    sink.OnSample([&](IMediaSample& sample) {
        const std::lock_guard lock(mutex);
        if (sink.Samples().empty())
            held = ComPtr<IMediaSample>(&sample);
        return S_OK;
    });
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
    const auto packets = [&builder](uint8_t number) {
        for (int i = 0; i < 20; ++i)
            builder.stream().Packet(kPid, Bytes(184, number));
        return builder.Padding().Take();
    };
    builder.Tables();
    ASSERT_EQ(graph.source->Push(packets(1)), S_OK);
    ASSERT_TRUE(sink.WaitForSamples(1));
    ASSERT_EQ(graph.source->Push(packets(2)), S_OK);
    const auto content = graph.Pin(u"t")->Content();
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() >= 20 * 188; }));
    ASSERT_EQ(graph.splitter->Reset(), S_OK);
    EXPECT_EQ(content->QueuedBytes(), 0);
    ASSERT_EQ(graph.source->Push(packets(3)), S_OK);
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() >= 20 * 188; }));
    {
        const std::lock_guard lock(mutex);
        held.Reset();
    }
    // Without a program nothing goes out; with the tables all does.
    builder.Tables();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(content->QueuedBytes(), 20 * 188);
    ASSERT_EQ(graph.source->Push(packets(4)), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    Bytes numbers;
    for (const ReceivedSample& sample : sink.Samples())
        for (size_t at = 0; at < sample.bytes.size(); at += kPacketSize)
            if (numbers.empty() || numbers.back() != sample.bytes[at + 4])
                numbers.push_back(sample.bytes[at + 4]);
    EXPECT_THAT(numbers, ElementsAre(1, 3, 4));
}

// The receiver is stalled, and the parser too, or the end of the stream is pending.
TEST(Reset, BesideAStalledReceiverWaitsForNobodyAndLosesNoEnd) {
    for (const bool full : {true, false}) {
        SCOPED_TRACE(full ? "the parser waits for room" : "the end is pending");
        SplitterGraph graph;
        TestSink& sink = AddPackets(graph, {ALL_PIDS});
        Gate gate(sink);
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid, 100'000)}}});
        const Bytes stream = builder.Tables().Frames(full ? 80 : 1).Padding().Take();
        std::thread pusher([&] {
            EXPECT_EQ(graph.source->Push(stream), S_OK);
            EXPECT_EQ(full ? S_OK : graph.End(), S_OK);
        });
        EXPECT_TRUE(gate.WaitUntilReached());
        const auto content = graph.Pin(u"t")->Content();
        if (full) {
            EXPECT_TRUE(Eventually([&] { return content->QueuedBytes() > 0x300000 - 188; }));
        } else {
            pusher.join();
        }
        CEvent done(EventReset::kManual);
        std::thread resetter([&] {
            EXPECT_EQ(graph.splitter->Reset(), S_OK);
            done.Set();
        });
        EXPECT_TRUE(done.Wait(kTestWait)) << "it waits for the receiver";
        gate.Open();
        resetter.join();
        if (full) {
            pusher.join();
            EXPECT_EQ(graph.End(), S_OK);
        }
        EXPECT_TRUE(sink.WaitForEnd());
    }
}

// A receiver that answers only after a reset has spoken of what came before it.
TEST(Reset, ALateAnswerDoesNotCount) {
    SplitterGraph graph;
    TestSink& sink = AddPackets(graph, {kPid});
    CEvent asked(EventReset::kManual);
    CEvent answers(EventReset::kManual);
    sink.OnSample([&](IMediaSample&) {
        if (asked.IsSet())
            return S_OK;
        asked.Set();
        EXPECT_TRUE(answers.Wait(kTestWait)) << "waited for the reset";
        return S_FALSE;
    });
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
    const auto push = [&] { EXPECT_EQ(graph.source->Push(builder.Tables().Frames(3).Padding().Take()), S_OK); };
    push();
    ASSERT_TRUE(asked.Wait(kTestWait));
    ASSERT_EQ(graph.splitter->Reset(), S_OK);
    answers.Set();
    push();
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    EXPECT_FALSE(sink.Bytes().empty());
}

TEST(Mapping, ChangesAtTheByteWhereItCame) {
    SplitterGraph graph;
    TestSink& sink = AddPackets(graph, {kPid});
    Gate gate(sink);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
    const auto pairs = [&builder](uint8_t from) {
        for (uint8_t i = from; i < from + 30; ++i)
            builder.stream().Packet(kPid, Bytes(184, i)).Packet(kOtherPid, Bytes(184, i));
        return builder.Padding(1).Take();
    };
    builder.Tables();
    ASSERT_EQ(graph.source->Push(pairs(0)), S_OK);
    ASSERT_TRUE(gate.WaitUntilReached());
    const auto pin = graph.Pin(u"t");
    const auto content = pin->Content();
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() + gate.Length() == 30 * 188; }));
    const ULONG other = kOtherPid;
    ASSERT_EQ(pin->MapPID(1, &other, MEDIA_TRANSPORT_PACKET), S_OK);
    ASSERT_EQ(graph.source->Push(pairs(30)), S_OK);
    const ULONG absent = 0x555;
    ASSERT_EQ(pin->UnmapPID(1, &absent), S_OK);
    ASSERT_EQ(graph.source->Push(pairs(60)), S_OK);
    gate.Open();
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    std::vector<std::pair<uint8_t, uint8_t>> received;  // low byte of the PID, number
    for (const ReceivedSample& sample : sink.Samples())
        for (size_t at = 0; at < sample.bytes.size(); at += kPacketSize)
            received.emplace_back(sample.bytes[at + 2], sample.bytes[at + 4]);
    std::vector<std::pair<uint8_t, uint8_t>> expected;
    for (uint8_t i = 0; i < 90; ++i) {
        expected.emplace_back(0x11, i);
        if (i >= 30)
            expected.emplace_back(0x12, i);
    }
    EXPECT_EQ(received, expected);
    EXPECT_THAT(sink.Discontinuities(), ElementsAre(0, 30 * kPacketSize));
}

}  // namespace
}  // namespace tessel
