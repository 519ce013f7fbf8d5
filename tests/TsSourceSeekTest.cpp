// Where the file source begins after a seek, and what it reads for one.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "platform/media/MediaResult.h"
#include "tests/support/SourceFixture.h"

namespace tessel {
namespace {

using build::Bytes;

Bytes From(const Bytes& bytes, size_t offset) {
    return {bytes.begin() + static_cast<ptrdiff_t>(offset), bytes.end()};
}

struct SeekCase {
    const char* name;
    MovieOptions options;
};

class Seeks : public FileSource, public testing::WithParamInterface<SeekCase> {
protected:
    // The point that a seek to that time begins at.
    static const Movie::Point& PointOf(const Movie& movie, REFERENCE_TIME time) {
        const Movie::Point* point = &movie.points[0];
        for (const Movie::Point& next : movie.points)
            if (next.time - 100 <= time && (&next != &movie.points[1] || time >= next.time))
                point = &next;
        return *point;
    }
    void Check(SourceGraph& graph, const Movie& movie, REFERENCE_TIME target) {
        const Movie::Point& point = PointOf(movie, target);
        if (point.filePos < movie.wrap) {
            EXPECT_EQ(graph.AbortResult(), VFW_E_INVALID_FILE_FORMAT) << "the clock jumps at the wrap";
            return;
        }
        if (graph.video != nullptr) {
            EXPECT_EQ(graph.video->Bytes(), From(movie.video, point.video)) << target;
        }
        EXPECT_EQ(graph.audio->Bytes(), From(movie.audio, point.audio)) << target;
        // The time sought is sample time 0.
        const auto times = graph.audio->Times();
        ASSERT_FALSE(times.empty());
        EXPECT_EQ(times[0], point.time - target) << target;
    }
    void AddStreams(SourceGraph& graph) {
        if (GetParam().options.video)
            graph.AddStreams(TypeOf(GetParam().options.coding));
        else
            graph.audio = &graph.Add(u"a", kAudioPid, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
    }
};

TEST_P(Seeks, BeginAtTheAccessPoint) {
    Movie movie(GetParam().options);
    movie.Frames(403).Padding();
    const fs::path path = Write(movie.stream.bytes());
    SourceGraph graph;
    ASSERT_EQ(graph.Load(path), S_OK);
    AddStreams(graph);
    const REFERENCE_TIME last = movie.points.back().time;
    const REFERENCE_TIME duration = graph.Duration();
    EXPECT_EQ(duration, GetParam().options.video ? movie.Now() : last + 240'000) << "a frame of audio lasts 24 ms";
    std::vector<REFERENCE_TIME> targets = {0, 1, last - 101, last - 100, last, duration - 1};
    for (const size_t i : {size_t{0}, size_t{1}, movie.points.size() / 2, movie.points.size() - 2})
        for (const int64_t by : {-101, -100, -99, 0, 1, 399'999})
            targets.push_back(std::max<int64_t>(movie.points[i].time + by, 0));
    std::mt19937 random(1);
    for (int i = 0; i < 20; ++i)
        targets.push_back(static_cast<REFERENCE_TIME>(random() % static_cast<uint64_t>(duration)));
    std::shuffle(targets.begin(), targets.end(), random);
    bool paused = false;
    for (const REFERENCE_TIME target : targets) {
        graph.Forget();
        ASSERT_EQ(graph.Seek(target), S_OK) << target;
        EXPECT_EQ(graph.Position(), target);
        graph.Play();
        Check(graph, movie, target);
        // Every other seek is made in the paused graph.
        paused = !paused;
        ASSERT_TRUE(SUCCEEDED(paused ? graph.graph->Pause() : graph.graph->Stop()));
    }
    ASSERT_EQ(graph.graph->Stop(), S_OK);

    // Beyond the end is the last point.
    graph.Forget();
    EXPECT_EQ(graph.Seek(duration + 10'000'000), S_OK);
    graph.Play();
    Check(graph, movie, duration - 1);
    ASSERT_EQ(graph.graph->Stop(), S_OK);

    // To a key frame, whose time is given back.
    const Movie::Point& middle = movie.points[movie.points.size() / 2];
    REFERENCE_TIME time = middle.time + 300'000;
    graph.Forget();
    ASSERT_EQ(
        graph.seeking->SetPositions(&time, AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame, nullptr, 0),
        S_OK);
    EXPECT_EQ(time, middle.time);
    EXPECT_EQ(graph.Position(), middle.time + 300'000);
    REFERENCE_TIME from = 0;
    REFERENCE_TIME to = 0;
    EXPECT_EQ(graph.seeking->GetAvailable(&from, &to), S_OK);
    EXPECT_EQ(from, middle.time);
    EXPECT_EQ(to, (&middle + 1)->time);
    graph.Play();
    Check(graph, movie, middle.time);
}

INSTANTIATE_TEST_SUITE_P(Codings, Seeks,
                         testing::Values(SeekCase{"Mpeg2", {}}, SeekCase{"Mpeg4", {.coding = Coding::kMpeg4}},
                                         SeekCase{"AvcParameters", {.coding = Coding::kAvcParameters}},
                                         SeekCase{"AvcIdr", {.coding = Coding::kAvcIdr, .gop = 75}},
                                         SeekCase{"AvcRecovery", {.coding = Coding::kAvcRecovery}},
                                         SeekCase{"LongGroups", {.gop = 150}},
                                         SeekCase{"AcrossTheWrap", {.start = kWrap - 200 * Movie::kFrame}},
                                         SeekCase{"Audio", {.video = false}}),
                         [](const auto& test) { return test.param.name; });

// Pictures that are shown before the one that a group begins with count from the group's time.
TEST_F(FileSource, TimesAGroupByItsFirstPictureShown) {
    Movie movie({.firstReference = 2});
    movie.Frames(25).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    constexpr REFERENCE_TIME kEarlier = 2 * Movie::kFrameTime;
    EXPECT_EQ(graph.Duration(), movie.Now() - kEarlier);
    ASSERT_EQ(graph.Seek(1), S_OK);
    REFERENCE_TIME from = 0;
    REFERENCE_TIME to = 0;
    EXPECT_EQ(graph.seeking->GetAvailable(&from, &to), S_OK);
    EXPECT_EQ(from, movie.points[0].time - kEarlier);
    EXPECT_EQ(to, movie.points[1].time);
}

}  // namespace
}  // namespace tessel
