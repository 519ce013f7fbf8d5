// The splitter in a graph: what comes out of its pins for what was pushed in.
#include <gmock/gmock.h>

#include <thread>

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

constexpr uint16_t kVideoPid = 0x111;
constexpr uint16_t kAudioPid = 0x112;

ProgrammeBuilder TwoStreams() {
    return ProgrammeBuilder({{.streams = {Video(kVideoPid), Audio(kAudioPid)}}});
}

// The received bytes are those of the stream from its first time stamp on, but for a tail that was held back.
void ExpectStream(const Bytes& received, const Bytes& sent, size_t mostHeldBack) {
    ASSERT_LE(received.size(), sent.size());
    EXPECT_LE(sent.size() - received.size(), mostHeldBack);
    EXPECT_TRUE(std::equal(received.begin(), received.end(), sent.begin()));
}

class SplitterModes : public testing::TestWithParam<StreamingMode> {};

TEST_P(SplitterModes, DeliversEveryByteWithItsTime) {
    SplitterGraph graph(GetParam());
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    const Bytes stream = builder.Tables().Frames(100).Padding().Take();
    ASSERT_EQ(graph.source->Push(stream), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(video.WaitForEnd());
    ASSERT_TRUE(audio.WaitForEnd());
    ExpectStream(video.Bytes(), builder.Payload(kVideoPid), 0);
    ExpectStream(audio.Bytes(), builder.Payload(kAudioPid), 0);
    for (TestSink* sink : {&video, &audio}) {
        const auto samples = sink->Samples();
        ASSERT_FALSE(samples.empty());
        EXPECT_TRUE(samples[0].discontinuity);
        EXPECT_EQ(sink->Segments(), 1u);
        EXPECT_EQ(sink->Ends(), 1u);
        const auto times = sink->Times();
        ASSERT_EQ(times.size(), 100u);
        for (size_t i = 1; i < times.size(); ++i)
            EXPECT_EQ(times[i] - times[0], static_cast<int64_t>(i) * 400'000);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, SplitterModes, testing::Values(StreamingMode::kStream, StreamingMode::kRecording),
                         [](const auto& mode) { return mode.param == StreamingMode::kStream ? "Strm" : "Rec"; });

TEST(Splitter, ANewPmtVersionChangesTheTypeAndLosesNothing) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& open = graph.AddOpen(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    builder.Tables().Frames(30);
    builder.stream().Packet(kVideoPid, Bytes(184, 0xEE)).Packet(kAudioPid, Bytes(184, 0xEE));
    ASSERT_EQ(graph.source->Push(builder.Padding().Take()), S_OK);
    ASSERT_TRUE(Eventually([&] { return open.Bytes().size() >= builder.Payload(kAudioPid).size(); }));
    // In the middle of PES packets, the same streams with another audio type; then nothing new but the version.
    builder.programmes()[0].pmtVersion = 1;
    builder.programmes()[0].streams[1].streamType = 0x81;
    builder.Tables();
    builder.stream().Packet(kVideoPid, Bytes(184, 0xEF)).Packet(kAudioPid, Bytes(184, 0xEF));
    builder.programmes()[0].pmtVersion = 2;
    builder.Tables();
    builder.stream().Packet(kVideoPid, Bytes(184, 0xF0)).Packet(kAudioPid, Bytes(184, 0xF0));
    ASSERT_EQ(graph.source->Push(builder.Frames(30).Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    for (TestSink* sink : {&video, &open}) {
        ASSERT_TRUE(sink->WaitForEnd());
        const size_t payload = builder.Payload(sink == &video ? kVideoPid : kAudioPid).size();
        EXPECT_EQ(sink->Bytes().size(), payload + 3 * 184);
        EXPECT_EQ(sink->Segments(), 1u);
        const auto samples = sink->Samples();
        const auto typed = std::count_if(samples.begin(), samples.end(),
                                         [](const auto& sample) { return sample.hasType && sample.discontinuity; });
        EXPECT_EQ(typed, sink == &video ? 0 : 1);
    }
    CMediaType type;
    EXPECT_EQ(graph.Pin(u"a")->CurrentMediaType(type), S_OK);
    EXPECT_EQ(type.subtype, MEDIASUBTYPE_DOLBY_AC3);
}

TEST(SplitterLive, AudioBeginsWhenItIsDue) {
    SplitterGraph graph(StreamingMode::kLive, MakeObject<ManualClock>());
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    // More than the test takes, since the wait has a time-out in real time.
    ASSERT_EQ(ComPtr<IPin>(graph.Pin(u"a").get()).As<IAMPushSource>()->SetStreamOffset(kTestWait * 10'000), S_OK);
    std::atomic<REFERENCE_TIME> begun{0};
    audio.OnSample([&](IMediaSample&) {
        if (begun == 0)
            begun = graph.clock->GetPrivateTime();
        return S_OK;
    });
    ASSERT_EQ(graph.Run(), S_OK);
    const REFERENCE_TIME start = graph.clock->GetPrivateTime();
    ProgrammeBuilder builder = TwoStreams();
    ASSERT_EQ(graph.source->Push(builder.Tables().Frames(40).Padding().Take()), S_OK);
    // Both start at once, and video waits for nobody; the last picture is held back.
    ASSERT_TRUE(video.WaitForSamples(39));
    ASSERT_TRUE(Eventually([&] { return graph.clock->Waits() == 1; }));
    graph.clock->Advance(10'000'000);
    EXPECT_TRUE(audio.Samples().empty());
    graph.clock->Advance(kTestWait * 10'000);
    ASSERT_TRUE(audio.WaitForSamples(1));
    EXPECT_EQ(begun, start + 10'000'000 + kTestWait * 10'000);
    EXPECT_EQ(audio.Flushes(), 1u);
    // What comes at a stop must not wait either.
    EXPECT_EQ(graph.graph->Stop(), S_OK);
}

// The first two sounds are due at 0.7 and at 2.7 seconds, and come at 1.7.
TEST(SplitterLive, LateAudioBeginsWithWhatIsDue) {
    SplitterGraph graph(StreamingMode::kLive, MakeObject<ManualClock>());
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.Run(), S_OK);
    constexpr int64_t kStart = 90'000;
    constexpr size_t kSize = 2'000;
    ProgrammeBuilder builder({{.streams = {Audio(kAudioPid)}}});
    builder.Tables().stream().Pcr(0x101, kStart * 300);
    ASSERT_EQ(graph.source->Push(builder.Padding().Take()), S_OK);
    ASSERT_TRUE(Eventually([&] { return graph.splitter->PidStatus().IsPresent(build::kNullPid); }));
    graph.clock->Advance(17'000'000);
    for (const int64_t pts : {kStart + 45'000, kStart + 225'000})
        builder.stream().Pes(kAudioPid, 0xC0, Bytes(kSize, 0x55), {.pts = pts});
    ASSERT_EQ(graph.source->Push(builder.Padding().Take()), S_OK);
    ASSERT_TRUE(audio.WaitForSamples(1));
    EXPECT_EQ(audio.Samples()[0].time, 17'000'000);
    EXPECT_EQ(audio.Samples()[0].bytes.size(), kSize / 2);
    EXPECT_EQ(graph.graph->Stop(), S_OK);
}

TEST(Splitter, ADiscontinuityInMidPacketLosesThatPacket) {
    SplitterGraph graph;
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    Bytes stream = builder.Tables().Frames(40).Take();
    stream.resize(stream.size() - 88);  // the end of an audio PES packet
    ASSERT_EQ(graph.source->Push(stream), S_OK);
    ASSERT_EQ(graph.source->Push(builder.Frames(40).Padding().Take(), true), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(audio.WaitForEnd());
    constexpr size_t kTail = 2'000 - 170 - 9 * 184;
    constexpr size_t kCut = 40 * 2'000 - kTail;
    Bytes expected = builder.Payload(kAudioPid);
    expected.erase(expected.begin() + kCut, expected.begin() + kCut + kTail);
    EXPECT_TRUE(audio.Bytes() == expected);
    EXPECT_THAT(audio.Discontinuities(), ElementsAre(0, kCut));
}

TEST(Splitter, PausedWithoutInputItsStreamEnds) {
    SplitterGraph graph;
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.graph->Disconnect(&graph.source->Out()), S_OK);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(graph.graph->Pause(), S_OK);
        ASSERT_EQ(graph.splitter->Pause(), S_OK);
        EXPECT_EQ(audio.Ends(), 1u);
        FILTER_STATE state = State_Stopped;
        EXPECT_EQ(graph.splitter->GetState(0, &state), VFW_S_CANT_CUE);
        EXPECT_EQ(state, State_Paused);
        EXPECT_FALSE(graph.splitter->IsStreaming());
        ASSERT_EQ(graph.graph->Stop(), S_OK);
        audio.Forget();
    }
}

TEST(Splitter, AFlushThrowsAwayAndStartsAnew) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ASSERT_EQ(graph.source->Push(TwoStreams().Tables().Frames(60).Take()), S_OK);
    ASSERT_TRUE(video.WaitForSamples(1));
    ASSERT_EQ(graph.source->Out().DeliverBeginFlush(), S_OK);
    EXPECT_EQ(graph.source->Push(Bytes(188, 0x47)), S_FALSE);
    EXPECT_EQ(graph.End(), S_FALSE) << "the end of what is thrown away";
    video.Forget();
    ASSERT_EQ(graph.source->Out().DeliverEndFlush(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    builder.SetTime(1'000'000);
    ASSERT_EQ(graph.source->Push(builder.Tables().Frames(40).Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(video.WaitForEnd());
    EXPECT_TRUE(video.Bytes() == builder.Payload(kVideoPid));
    EXPECT_TRUE(video.Samples()[0].discontinuity);
    EXPECT_EQ(video.Segments(), 1u);
    EXPECT_EQ(video.Ends(), 1u);
}

TEST(Splitter, TheEndComesBehindWhatIsQueuedAndOnce) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    CEvent open{EventReset::kManual};
    size_t endsBefore = 0;
    video.OnSample([&](IMediaSample&) {
        EXPECT_TRUE(open.Wait(kTestWait)) << "waited for the end of the input";
        endsBefore += video.Ends();
        return S_OK;
    });
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    ASSERT_EQ(graph.source->Push(builder.Tables().Frames(40).Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    EXPECT_EQ(video.Ends(), 0u);
    open.Set();
    ASSERT_TRUE(video.WaitForEnd());
    EXPECT_TRUE(video.Bytes() == builder.Payload(kVideoPid));
    EXPECT_EQ(graph.graph->Stop(), S_OK);
    EXPECT_EQ(video.Ends(), 1u);
    EXPECT_EQ(endsBefore, 0u);
}

TEST(Splitter, AReceiverThatWantsNoMoreIsToldOfTheEnd) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    const Bytes stream = TwoStreams().Tables().Frames(40).Padding().Take();
    for (int round = 0; round < 2; ++round) {
        video.Forget();
        audio.Forget();
        video.OnSample([&](IMediaSample&) { return video.Samples().empty() ? S_OK : S_FALSE; });
        ASSERT_EQ(graph.Run(), S_OK);
        ASSERT_EQ(graph.source->Push(stream), S_OK);
        ASSERT_TRUE(video.WaitForRest());
        ASSERT_EQ(graph.End(), S_OK);
        ASSERT_TRUE(audio.WaitForEnd());
        EXPECT_TRUE(video.WaitForEnd()) << "the end of what it refused";
        ASSERT_EQ(graph.graph->Stop(), S_OK);
        EXPECT_EQ(video.Samples().size(), 1u);
        EXPECT_EQ(video.Ends(), 1u);
    }
}

TEST(Splitter, AStopIsTheEndOfWhatHasNone) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    video.OnSample([](IMediaSample&) { return S_FALSE; });
    ASSERT_EQ(graph.Run(), S_OK);
    ASSERT_EQ(graph.source->Push(TwoStreams().Tables().Frames(40).Padding().Take()), S_OK);
    const auto pin = graph.Pin(u"v");
    ASSERT_TRUE(Eventually([&] { return pin->DeliverSection({}, {}) != 0; })) << "it takes nothing any more";
    EXPECT_EQ(video.Ends(), 0u);
    EXPECT_EQ(graph.splitter->Stop(), S_OK);
    EXPECT_EQ(video.Ends(), 1u);
}

TEST(Splitter, AStopWaitsForAReceiveThatIsUnderWay) {
    SplitterGraph graph;
    ASSERT_EQ(graph.Run(), S_OK);
    CEvent stopped(EventReset::kManual);
    std::thread stopping;
    {
        CScopedLock receive(&dynamic_cast<CTsInputPin&>(*graph.splitter->GetPin(0)).ReceiveLock());
        stopping = std::thread([&] {
            EXPECT_EQ(graph.splitter->Stop(), S_OK);
            stopped.Set();
        });
        EXPECT_FALSE(stopped.Wait(300));
    }
    stopping.join();
}

TEST(Splitter, AnotherTransportStreamStartsTheOutputsAnew) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& psi = graph.Add(u"p", MEDIATYPE_MPEG2_SECTIONS, GUID_NULL, {0}, MEDIA_MPEG2_PSI);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder first = TwoStreams();
    ASSERT_EQ(graph.source->Push(first.Tables().Frames(40).Padding().Take()), S_OK);
    ASSERT_TRUE(Eventually([&] { return video.Bytes().size() >= 39 * 20'000; }));
    // It lists the same PID; its counters begin anew, so the first table is lost.
    ProgrammeBuilder second({{.number = 9, .pmtPid = 0x200, .streams = {Video(kVideoPid)}}}, 2);
    second.SetTime(5'000'000).Tables();
    ASSERT_EQ(graph.source->Push(second.Tables().Frames(40).Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(video.WaitForEnd());
    const Bytes received = video.Bytes();
    const Bytes& payload = second.Payload(kVideoPid);
    ASSERT_GE(received.size(), payload.size());
    EXPECT_TRUE(std::equal(payload.rbegin(), payload.rend(), received.rbegin()));
    EXPECT_EQ(video.Segments(), 2u);
    uint32_t id = 0;
    EXPECT_EQ(graph.splitter->GetTransportStreamId(&id), S_OK);
    EXPECT_EQ(id, 2u);
    ASSERT_TRUE(psi.WaitForEnd());
    std::vector<int> announced;
    for (const ReceivedSample& sample : psi.Samples())
        if (sample.bytes[0] == 0)
            announced.push_back(sample.bytes[4]);
    EXPECT_THAT(announced, ElementsAre(1, 2));
}

enum class Jump { kWrap, kForward, kBackward };
using JumpCase = std::tuple<StreamingMode, Jump>;

class SplitterJumps : public testing::TestWithParam<JumpCase> {};

// Whatever the PCR does, no byte is lost, and sample times go on.
TEST_P(SplitterJumps, TimesGoOn) {
    constexpr int kFrames = 100;
    constexpr int kJumpAt = 45;
    constexpr int64_t kStep = 400'000;
    // Live, frames are due about 17 of them after they came.
    constexpr int kSlack = 24;
    const auto [mode, jump] = GetParam();
    const bool live = mode == StreamingMode::kLive;
    SplitterGraph graph(mode, live ? MakeObject<ManualClock>() : ComPtr<ManualClock>());
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder = TwoStreams();
    constexpr int64_t kBefore = (int64_t{1} << 33) - kJumpAt * ProgrammeBuilder::kFrame;
    builder.SetTime(kBefore).Tables();
    for (int i = 0; i < kFrames; ++i) {
        if (i == kJumpAt && jump != Jump::kWrap)
            builder.SetTime(jump == Jump::kForward ? kBefore + 20'000'000 : 50'000'000);
        ASSERT_EQ(graph.source->Push(builder.Frames(1).Take()), S_OK);
        if (!live)
            continue;
        graph.clock->Advance(kStep);
        // Audio that starts waits for its time; that time must not pass before it does.
        const size_t waits = i >= kJumpAt + 10 ? 2 : i >= 10 ? 1 : 0;
        ASSERT_TRUE(Eventually([&] { return graph.clock->Waits() >= waits; }));
        ASSERT_TRUE(i < kSlack || audio.WaitForSamples(static_cast<size_t>(i - kSlack))) << i;
    }
    ASSERT_EQ(graph.source->Push(builder.Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    for (TestSink* sink : {&video, &audio}) {
        ASSERT_TRUE(sink->WaitForEnd());
        EXPECT_TRUE(sink->Bytes() == builder.Payload(sink == &video ? kVideoPid : kAudioPid));
        EXPECT_EQ(sink->Segments(), 2u);
        // Only audio is aligned to a clock, and only to one that is there.
        EXPECT_EQ(sink->Flushes(), live && sink == &audio ? 2u : 0u);
        const auto times = sink->Times();
        ASSERT_EQ(times.size(), size_t{kFrames});
        EXPECT_NEAR(static_cast<double>(times[0]),
                    live                             ? 7'000'000
                    : mode == StreamingMode::kStream ? 200'000
                                                     : 0,
                    20'000);
        for (size_t i = 1; i < times.size(); ++i) {
            // Recorded, the new start takes the time that has been reached.
            const int64_t step = i == kJumpAt && !live ? 0 : kStep;
            EXPECT_NEAR(static_cast<double>(times[i] - times[i - 1]), static_cast<double>(step), 20'000) << i;
        }
    }
}

// The end of the stream comes while sound is behind a jump already, and pictures are held up in front of it.
TEST(Splitter, WhatIsBehindAJumpWaitsForTheOthersAtTheEndToo) {
    for (const StreamingMode mode : {StreamingMode::kStream, StreamingMode::kRecording}) {
        SplitterGraph graph(mode);
        TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
        TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
        CEvent released(EventReset::kManual);
        video.OnSample([&](IMediaSample&) {
            EXPECT_TRUE(released.Wait(kTestWait)) << "the end of the test";
            return S_OK;
        });
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder = TwoStreams();
        builder.SetTime(0).Tables().Frames(45).SetTime(20'000'000).Frames(45).Padding();
        ASSERT_EQ(graph.source->Push(builder.Take()), S_OK);
        ASSERT_EQ(graph.End(), S_OK);
        ASSERT_TRUE(audio.WaitForSamples(45));
        Sleep(50);  // for an end that comes too early
        EXPECT_EQ(audio.Ends(), 0u);
        released.Set();
        for (TestSink* sink : {&video, &audio}) {
            ASSERT_TRUE(sink->WaitForEnd());
            EXPECT_TRUE(sink->Bytes() == builder.Payload(sink == &video ? kVideoPid : kAudioPid));
            EXPECT_EQ(sink->Times().size(), 90u) << "the jump stands at the right byte";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, SplitterJumps,
                         testing::Combine(testing::Values(StreamingMode::kLive, StreamingMode::kStream,
                                                          StreamingMode::kRecording),
                                          testing::Values(Jump::kWrap, Jump::kForward, Jump::kBackward)));

}  // namespace
}  // namespace tessel
