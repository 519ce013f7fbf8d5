// The live splitter: times that follow the arrivals, nothing lost, and a receiver that stalls alone.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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

constexpr uint16_t kPcrPid = 0x101;
constexpr uint16_t kVideoPid = 0x111;
constexpr uint16_t kAudioPid = 0x112;
constexpr REFERENCE_TIME kFrameTime = 400'000;
constexpr REFERENCE_TIME kLiveOffset = 2'000'000;

struct LiveGraph {
    explicit LiveGraph(IReferenceClock* clock, size_t videoSize = 20'000)
        : graph(StreamingMode::kLive), builder({{.streams = {Video(kVideoPid, videoSize), Audio(kAudioPid)}}}) {
        video = &graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
        audio = &graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
        EXPECT_EQ(clock != nullptr ? graph.graph->SetSyncSource(clock) : graph.graph->SetDefaultSyncSource(), S_OK);
        EXPECT_EQ(graph.Run(), S_OK);
    }
    void PushFrame() { EXPECT_EQ(graph.source->Push(builder.Frames(1).Take()), S_OK); }

    // The time that the programme's clock gives a time stamp now; kUnknown without a clock.
    REFERENCE_TIME ClockTime(int64_t timestamp) {
        PcrClocks& clocks = graph.splitter->Clocks();
        CScopedLock lock(&clocks.Lock());
        const PcrClock* const clock = clocks.Find(kPcrPid);
        return clock == nullptr || clock->timeOrigin == kUnknown
                   ? kUnknown
                   : clock->timeOrigin + (timestamp * 300 - clock->pcrOrigin) * 10 / 27;
    }
    // How far each time of a sink lies from the clock's.
    std::vector<REFERENCE_TIME> Distances(const TestSink& sink, uint16_t pid) {
        std::vector<REFERENCE_TIME> distances;
        const auto times = sink.Times();
        const auto& stamps = builder.Stamps(pid);
        EXPECT_LE(times.size(), stamps.size());
        const size_t first = stamps.size() - times.size();
        for (size_t i = 0; i < times.size(); ++i)
            distances.push_back(times[i] - kLiveOffset - ClockTime(stamps[first + i].time));
        return distances;
    }

    SplitterGraph graph;
    ProgrammeBuilder builder;
    TestSink* video;
    TestSink* audio;
};

TEST(Live, APauseLeavesTheArrivalsTheirTime) {
    const auto clock = MakeObject<ManualClock>();
    LiveGraph live(clock.Get());
    ASSERT_EQ(live.graph.graph->Pause(), S_OK);
    clock->Advance(100'000'000);
    ASSERT_EQ(live.graph.source->Push(live.builder.Tables().Frames(1).Padding().Take()), S_OK);
    constexpr int64_t kFirstPcr = 90'000;
    ASSERT_TRUE(Eventually([&] { return live.ClockTime(kFirstPcr) != kUnknown; }));
    EXPECT_GE(live.ClockTime(kFirstPcr), 90'000'000);
}

TEST(Live, TimesFollowTheArrivalsAndNothingIsLost) {
    const auto clock = MakeObject<ManualClock>();
    LiveGraph live(clock.Get());
    EXPECT_EQ(live.graph.source->Push(live.builder.Tables().Take()), S_OK);
    for (int frame = 0; frame < 250; ++frame) {
        // Arrivals jitter by up to 8 ms around their time.
        constexpr REFERENCE_TIME kJitter[] = {0, 80'000, -50'000, 20'000, -50'000};
        live.PushFrame();
        clock->Advance(kFrameTime + kJitter[frame % 5]);
        if (frame % 25 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(live.graph.source->Push(live.builder.Padding().Take()), S_OK);
    EXPECT_EQ(live.graph.End(), S_OK);
    ASSERT_TRUE(live.video->WaitForEnd());
    ASSERT_TRUE(live.audio->WaitForEnd());
    EXPECT_TRUE(live.video->Bytes() == live.builder.Payload(kVideoPid));
    EXPECT_GE(live.video->Times().size(), 249u);
    for (const REFERENCE_TIME distance : live.Distances(*live.video, kVideoPid))
        EXPECT_LE(std::abs(distance), 200'000);
}

TEST(Live, AStalledReceiverLosesItsOwnDataOnly) {
    const auto clock = MakeObject<ManualClock>();
    LiveGraph live(clock.Get(), 200'000);
    std::atomic<bool> stalls{true};
    live.video->OnSample([&stalls](IMediaSample&) {
        for (int i = 0; stalls && i < 30'000; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return S_OK;
    });
    EXPECT_EQ(live.graph.source->Push(live.builder.Tables().Take()), S_OK);
    const auto run = [&](int frames) {
        for (int frame = 0; frame < frames; ++frame) {
            live.PushFrame();
            clock->Advance(kFrameTime);
        }
    };
    run(60);  // three times what the stalled pin holds, and less than the jump that would start all anew
    stalls = false;
    ASSERT_TRUE(live.video->WaitForSamples(1)) << "the stalled sample";
    run(25);
    EXPECT_EQ(live.graph.source->Push(live.builder.Padding().Take()), S_OK);
    EXPECT_EQ(live.graph.End(), S_OK);
    ASSERT_TRUE(live.video->WaitForEnd());
    ASSERT_TRUE(live.audio->WaitForEnd());
    EXPECT_LT(live.video->Bytes().size(), live.builder.Payload(kVideoPid).size());
    const auto samples = live.video->Samples();
    const auto marked = [](const ReceivedSample& sample) { return sample.discontinuity; };
    EXPECT_GE(std::count_if(samples.begin(), samples.end(), marked), 2) << "its start, and the gap";
    // Of the audio at most what was late at its start is missing.
    EXPECT_GE(live.audio->Bytes().size(), live.builder.Payload(kAudioPid).size() * 9 / 10);
    const auto heard = live.audio->Samples();
    EXPECT_EQ(std::count_if(heard.begin(), heard.end(), marked), 1) << "its start";
}

}  // namespace
}  // namespace tessel
