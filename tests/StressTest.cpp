// Rounds of everything that may happen to a running graph at once. TESSEL_STRESS_ROUNDS says how many rounds of each
// (20); each ends in a stop, and no object may outlive it. Made to run under ThreadSanitizer.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "platform/media/MediaResult.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"
#include "tests/support/SourceFixture.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::ProgrammeBuilder;
using build::Video;

constexpr uint16_t kOtherPid = 0x113;

int Rounds(int most = 1'000'000) {
    const char* const text = std::getenv("TESSEL_STRESS_ROUNDS");
    return std::min(text != nullptr ? std::atoi(text) : 20, most);
}

// Fails loudly, saying what hung, when work does not come back.
class Watchdog {
public:
    explicit Watchdog(std::string what)
        : m_thread([this, text = std::move(what)] {
              std::unique_lock lock(m_mutex);
              if (m_changed.wait_for(lock, std::chrono::seconds(120), [this] { return m_done; }))
                  return;
              std::fprintf(stderr, "still waiting after 120 s: %s\n", text.c_str());
              std::abort();
          }) {}
    ~Watchdog() {
        {
            const std::lock_guard lock(m_mutex);
            m_done = true;
            m_changed.notify_all();
        }
        m_thread.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    std::thread m_thread;
};

Bytes MakeStream(uint16_t transportStreamId) {
    ProgrammeBuilder builder({{.streams = {Video(kVideoPid, 5'000), Audio(kAudioPid, 1'000)}}}, transportStreamId);
    for (int i = 0; i < 4; ++i)
        builder.Tables().Frames(12);
    return builder.Padding().Take();
}

// Pushes a stream again and again, in odd pieces, on a thread of its own.
class Pusher {
public:
    Pusher(TestSource& source, std::vector<Bytes> streams, unsigned seed)
        : m_thread([this, &source, all = std::move(streams), seed] {
              std::mt19937 random(seed);
              for (size_t i = 0; !m_stop; i = (i + 1) % all.size()) {
                  std::span<const uint8_t> left(all[i]);
                  while (!left.empty() && !m_stop) {
                      const size_t size = std::min<size_t>(1 + random() % 20'000, left.size());
                      if (source.Push(left.first(size), random() % 50 == 0) != S_OK)
                          std::this_thread::yield();
                      left = left.subspan(size);
                  }
              }
          }) {}
    ~Pusher() {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

struct Fixture {
    explicit Fixture(int round) : graph(static_cast<StreamingMode>(round % 3)), random(static_cast<unsigned>(round)) {
        video = &graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
        audio = &graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kAudioPid);
        packets = &graph.Add(u"p", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {ALL_PIDS}, MEDIA_TRANSPORT_PACKET);
        sections = &graph.Add(u"s", MEDIATYPE_MPEG2_SECTIONS, GUID_NULL, {ALL_TABLES}, MEDIA_MPEG2_PSI);
        if (round % 3 == 0) {
            EXPECT_EQ(graph.graph->SetDefaultSyncSource(), S_OK);
        }
    }
    void Breathe() { std::this_thread::sleep_for(std::chrono::microseconds(random() % 3'000)); }

    SplitterGraph graph;
    std::mt19937 random;
    TestSink* video;
    TestSink* audio;
    TestSink* packets;
    TestSink* sections;
};

// One round of a scenario, with the stream arriving meanwhile.
template <class Scenario>
void Repeat(const char* what, int rounds, Scenario scenario) {
    static const std::vector<Bytes> streams = {MakeStream(1)};
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        const Watchdog watchdog(std::string(what) + ", round " + std::to_string(round));
        Fixture fixture(round);
        ASSERT_EQ(fixture.graph.Run(), S_OK);
        {
            const Pusher pusher(*fixture.graph.source.Get(), streams, static_cast<unsigned>(round));
            scenario(fixture);
            // The pusher may be waiting for room, which a stop ends.
            EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
        }
    }
}

TEST(Stress, RunPauseStop) {
    Repeat("run, pause and stop", Rounds(), [](Fixture& fixture) {
        for (int i = 0; i < 6; ++i) {
            fixture.Breathe();
            switch (fixture.random() % 3) {
            case 0:
                EXPECT_GE(fixture.graph.graph->Run(0), 0);
                break;
            case 1:
                EXPECT_GE(fixture.graph.graph->Pause(), 0);
                break;
            default:
                EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
                break;
            }
        }
    });
}

TEST(Stress, FlushInMidPacket) {
    Repeat("flush", Rounds(), [](Fixture& fixture) {
        for (int i = 0; i < 4; ++i) {
            fixture.Breathe();
            fixture.graph.source->Out().DeliverBeginFlush();
            fixture.Breathe();
            fixture.graph.source->Out().DeliverEndFlush();
        }
    });
}

TEST(Stress, EndOfFlushBesideStop) {
    SplitterGraph graph;
    graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kVideoPid);
    for (int round = 0; round < 100 * Rounds(); ++round) {
        ASSERT_GE(graph.splitter->Pause(), 0);
        ASSERT_EQ(graph.source->Out().DeliverBeginFlush(), S_OK);
        std::atomic<bool> begun{false};
        std::thread flush([&] {
            begun = true;
            EXPECT_EQ(graph.source->Out().DeliverEndFlush(), S_OK);
        });
        while (!begun) {
        }
        for (int wait = round % 50 * 20; wait > 0; --wait)
            begun = true;
        ASSERT_EQ(graph.splitter->Stop(), S_OK);
        flush.join();
        ASSERT_FALSE(graph.splitter->IsStreaming()) << round;
        ASSERT_FALSE(graph.Pin(u"v")->Content()->IsActive()) << round;
    }
}

TEST(Stress, MapAndUnmap) {
    Repeat("map and unmap", Rounds(), [](Fixture& fixture) {
        const auto video = fixture.graph.Pin(u"v");
        const auto packets = fixture.graph.Pin(u"p");
        const auto sections = fixture.graph.Pin(u"s");
        const ULONG videoPids[] = {kVideoPid, kOtherPid};
        const ULONG all = ALL_PIDS;
        const ULONG table = 0x11;
        for (int i = 0; i < 12; ++i) {
            const ULONG pid = videoPids[i % 2];
            EXPECT_EQ(video->UnmapPID(2, videoPids), S_OK);
            EXPECT_EQ(video->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
            EXPECT_EQ(packets->UnmapPID(1, &all), S_OK);
            EXPECT_EQ(packets->MapPID(1, i % 2 == 0 ? &pid : &all, MEDIA_TRANSPORT_PACKET), S_OK);
            EXPECT_EQ(sections->MapPID(1, &table, MEDIA_MPEG2_PSI), S_OK);
            fixture.Breathe();
        }
    });
}

TEST(Stress, DeleteAndCreatePins) {
    Repeat("delete and create pins", Rounds(), [](Fixture& fixture) {
        auto& demultiplexer = *fixture.graph.demultiplexer.Get();
        AM_MEDIA_TYPE type = MakeMediaType(MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
        for (int i = 0; i < 4; ++i) {
            fixture.Breathe();
            EXPECT_EQ(demultiplexer.DeleteOutputPin(i % 2 == 0 ? u"v" : u"extra"), S_OK);
            ComPtr<IPin> pin;
            EXPECT_EQ(demultiplexer.CreateOutputPin(&type, i % 2 == 0 ? u"extra" : u"v", pin.Put()), S_OK);
            const ULONG pid = kVideoPid;
            EXPECT_EQ(pin.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
            // Refused while the filter runs, as every pin does it.
            TestSink& sink = *fixture.video;
            EXPECT_LT(pin->Connect(&sink.In(), &type), 0);
        }
    });
}

TEST(Stress, NewTransportStream) {
    const std::vector<Bytes> streams = {MakeStream(1), MakeStream(2), MakeStream(3)};
    for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
        const Watchdog watchdog("new transport stream, round " + std::to_string(round));
        Fixture fixture(round);
        ASSERT_EQ(fixture.graph.Run(), S_OK);
        const Pusher pusher(*fixture.graph.source.Get(), streams, static_cast<unsigned>(round));
        EXPECT_TRUE(fixture.packets->WaitForSamples(5)) << "five samples of all packets";
        EXPECT_EQ(fixture.graph.splitter->Reset(), S_OK);
        fixture.Breathe();
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
    }
}

TEST(Stress, EndOfStreamWithDataQueued) {
    static const Bytes stream = MakeStream(1);
    for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
        const Watchdog watchdog("end of stream, round " + std::to_string(round));
        Fixture fixture(round);
        fixture.video->OnSample([](IMediaSample&) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            return S_OK;
        });
        ASSERT_EQ(fixture.graph.Run(), S_OK);
        EXPECT_EQ(fixture.graph.source->Push(stream), S_OK);
        EXPECT_EQ(fixture.graph.End(), S_OK);
        if (round % 2 == 0) {
            for (TestSink* sink : {fixture.video, fixture.audio, fixture.packets, fixture.sections}) {
                EXPECT_TRUE(sink->WaitForEnd()) << "the end of a stream";
                EXPECT_EQ(sink->Ends(), 1u);
            }
            EXPECT_EQ(fixture.packets->Bytes().size() % 188, 0u);
        }
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
    }
}

TEST(Stress, SinkThatFails) {
    Repeat("a sink that fails", Rounds(), [](Fixture& fixture) {
        // Handed over before any sample comes is not needed: a failure may come at any time.
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
        std::atomic<int> left = static_cast<int>(fixture.random() % 8);
        fixture.video->OnSample([&left](IMediaSample&) { return left-- > 0 ? S_OK : E_FAIL; });
        fixture.audio->OnSample([&left](IMediaSample&) { return left-- > 0 ? S_OK : S_FALSE; });
        fixture.packets->Forget();
        EXPECT_EQ(fixture.graph.Run(), S_OK);
        EXPECT_TRUE(fixture.packets->WaitForSamples(3)) << "the other pins go on";
        fixture.graph.source->Out().DeliverBeginFlush();
        fixture.graph.source->Out().DeliverEndFlush();
        fixture.Breathe();
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
        fixture.video->OnSample({});
        fixture.audio->OnSample({});
    });
}

TEST(Stress, SinkThatBlocks) {
    Repeat("a sink that blocks", Rounds(100), [](Fixture& fixture) {
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
        std::atomic<bool> blocks{true};
        fixture.video->OnSample([&blocks](IMediaSample&) {
            if (blocks.exchange(false))
                std::this_thread::sleep_for(std::chrono::seconds(1));
            return S_OK;
        });
        EXPECT_EQ(fixture.graph.Run(), S_OK);
        EXPECT_TRUE(fixture.video->WaitForSamples(1)) << "the blocked sample";
        EXPECT_EQ(fixture.graph.graph->Stop(), S_OK);
        fixture.video->OnSample({});
    });
}

using StressOfFiles = FileSource;

TEST_F(StressOfFiles, PlaySeekStop) {
    Movie movie;
    movie.Frames(300).Padding();
    const fs::path path = Write(movie.stream.bytes());
    for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
        const Watchdog watchdog("play, seek and stop, round " + std::to_string(round));
        SourceGraph graph;
        ASSERT_EQ(graph.Load(path), S_OK);
        graph.AddStreams();
        const REFERENCE_TIME duration = graph.Duration();
        std::atomic<bool> done{false};
        std::thread asking([&] {
            while (!done) {
                EXPECT_EQ(graph.Duration(), duration);
                EXPECT_GE(graph.Position(), 0);
                std::this_thread::yield();
            }
        });
        std::mt19937 random(static_cast<unsigned>(round));
        for (int i = 0; i < 8; ++i) {
            REFERENCE_TIME target = static_cast<REFERENCE_TIME>(random() % static_cast<uint64_t>(duration));
            switch (random() % 5) {
            case 0:
                EXPECT_GE(graph.graph->Run(0), 0);
                break;
            case 1:
                EXPECT_GE(graph.graph->Pause(), 0);
                break;
            case 2:
                EXPECT_EQ(graph.graph->Stop(), S_OK);
                break;
            default:
                EXPECT_GE(graph.graph->Pause(), 0);
                EXPECT_GE(graph.Seek(target), 0);
                EXPECT_GE(i % 2 == 0 ? graph.graph->Run(0) : S_OK, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3'000));
        }
        done = true;
        asking.join();
        EXPECT_EQ(graph.graph->Stop(), S_OK);
        EXPECT_EQ(graph.Seek(movie.points[3].time), S_OK);
        graph.Forget();
        graph.Play();
        const Bytes played = graph.video->Bytes();
        const Bytes expected(movie.video.begin() + static_cast<ptrdiff_t>(movie.points[3].video), movie.video.end());
        EXPECT_TRUE(played == expected)
            << played.size() << " bytes instead of " << expected.size() << ", the same up to "
            << std::mismatch(played.begin(), played.end(), expected.begin(), expected.end()).first - played.begin();
    }
}

// Whoever comes first, the stream that is mapped plays.
TEST_F(StressOfFiles, MapBesidePause) {
    Movie movie;
    movie.Frames(50).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    const auto pin = std::dynamic_pointer_cast<CTsOutputPin>(dynamic_cast<CTsSource&>(*graph.filter.Get()).GetPin(0));
    ASSERT_TRUE(pin);
    const ULONG pid = kVideoPid;
    std::mt19937 random(3);
    for (int round = 0; round < 10 * Rounds() && !HasFailure(); ++round) {
        const Watchdog watchdog("map beside pause, round " + std::to_string(round));
        std::atomic<bool> go{false};
        std::thread mapping([&] {
            while (!go) {
            }
            EXPECT_EQ(pin->UnmapPID(1, &pid), S_OK);
            EXPECT_EQ(pin->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
        });
        const auto pause = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 50);
        go = true;
        while (std::chrono::steady_clock::now() < pause) {
        }
        EXPECT_GE(graph.graph->Pause(), 0);
        mapping.join();
        EXPECT_TRUE(pin->Content()->IsActive()) << round;
        EXPECT_TRUE(graph.video->WaitForEnd());
        EXPECT_EQ(graph.graph->Stop(), S_OK);
        graph.Forget();
    }
}

}  // namespace
}  // namespace tessel
