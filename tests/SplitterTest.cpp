// The splitter in a graph: what comes out of its pins for what was pushed in.
#include <gmock/gmock.h>

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
        const auto typed =
            std::count_if(samples.begin(), samples.end(), [](const auto& sample) { return sample.hasType; });
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
    // Longer than the test takes, since the wait has a time-out in real time.
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
    // Both start at once, and video waits for nobody.
    ASSERT_TRUE(video.WaitForSamples(30));
    graph.clock->Advance(10'000'000);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(audio.Samples().empty());
    graph.clock->Advance(kTestWait * 10'000);
    ASSERT_TRUE(audio.WaitForSamples(1));
    EXPECT_EQ(begun, start + 10'000'000 + kTestWait * 10'000);
    EXPECT_EQ(audio.Flushes(), 1u);
    // What comes at a stop must not wait either.
    EXPECT_EQ(graph.graph->Stop(), S_OK);
}

}  // namespace
}  // namespace tessel
