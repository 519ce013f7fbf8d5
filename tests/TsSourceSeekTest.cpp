// Where the file source begins after a seek, and what it reads for one.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <random>
#include <utility>

#include "platform/media/MediaResult.h"
#include "source/StreamFile.h"
#include "tests/support/SourceFixture.h"

namespace tessel {
namespace {

using build::Bytes;

Bytes From(const Bytes& bytes, size_t offset) {
    return {bytes.begin() + static_cast<ptrdiff_t>(offset), bytes.end()};
}

// The point that a seek to that time begins at.
const Movie::Point& PointOf(const Movie& movie, REFERENCE_TIME time) {
    const Movie::Point* point = &movie.points[0];
    for (const Movie::Point& next : movie.points)
        if (next.time - 100 <= time && (&next != &movie.points[1] || time >= next.time))
            point = &next;
    return *point;
}

struct SeekCase {
    const char* name;
    MovieOptions options;
};

class Seeks : public FileSource, public testing::WithParamInterface<SeekCase> {
protected:
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
        // Behind a seek, pictures are shown one later.
        if (graph.video != nullptr && target != 0) {
            const auto pictures = graph.video->Times();
            ASSERT_FALSE(pictures.empty());
            EXPECT_EQ(pictures[0], times[0] + Movie::kFrameTime) << target;
        }
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
        // A paused graph plays on, and may have come to its end by now.
        if (!paused) {
            EXPECT_EQ(graph.Position(), target);
        }
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

int SeekRounds(int usual) {
    const char* const text = std::getenv("TESSEL_SEEK_ROUNDS");
    return text != nullptr ? std::atoi(text) : usual;
}

// What a receiver gets first, and what time the first byte of it has.
struct Beginning {
    Bytes bytes;
    std::optional<REFERENCE_TIME> time;

    bool operator==(const Beginning&) const = default;
};

// A graph whose sinks take the beginning of what comes, and no more of it.
class BeginningGraph {
public:
    BeginningGraph(const fs::path& path, const GUID& videoType) {
        EXPECT_EQ(m_graph.Load(path), S_OK);
        m_graph.AddStreams(videoType);
        for (TestSink* sink : Sinks()) {
            sink->ForgetAtFlush();
            sink->OnSample([sink](IMediaSample&) { return sink->Bytes().size() < kBytes ? S_OK : S_FALSE; });
        }
    }
    SourceGraph* operator->() { return &m_graph; }
    std::vector<Beginning> At(REFERENCE_TIME target, bool paused) {
        if (!paused) {
            EXPECT_EQ(m_graph.graph->Stop(), S_OK);
            m_graph.Forget();
        }
        EXPECT_EQ(m_graph.Seek(target), S_OK) << target;
        if (!paused) {
            EXPECT_TRUE(SUCCEEDED(m_graph.graph->Pause()));
        }
        std::vector<Beginning> all;
        for (const TestSink* sink : Sinks()) {
            EXPECT_TRUE(sink->WaitForRest()) << "the beginning of a stream, " << target;
            const auto samples = sink->Samples();
            all.push_back({sink->Bytes(), samples.empty() ? std::nullopt : samples[0].time});
            all.back().bytes.resize(std::min(all.back().bytes.size(), kBytes));
        }
        return all;
    }

private:
    static constexpr size_t kBytes = 4'000;

    std::array<TestSink*, 2> Sinks() const { return {m_graph.video, m_graph.audio}; }

    SourceGraph m_graph;
};

// No seek depends on those before it.
TEST_F(FileSource, SeeksToTheSamePlaceWhereverItComesFrom) {
    const int rounds = SeekRounds(100);
    for (const MovieOptions& options : {MovieOptions{.gop = 12, .sizes = 4},
                                        {.coding = Coding::kAvcIdr, .gop = 25, .pictureSize = 2'000, .sizes = 3}}) {
        SCOPED_TRACE(static_cast<int>(options.coding));
        Movie movie(options);
        movie.Frames(1'500).Padding();
        const fs::path path = Write(movie.stream.bytes());
        const GUID& type = TypeOf(options.coding);
        BeginningGraph graph(path, type);
        const auto duration = static_cast<uint64_t>(graph->Duration());
        ASSERT_GT(duration, 0u);
        ASSERT_TRUE(SUCCEEDED(graph->graph->Pause()));
        std::mt19937 random(5);
        for (int round = 0; round < rounds && !HasFailure();) {
            const auto target = static_cast<REFERENCE_TIME>(random() % duration);
            // At a point itself, the unit that is near decides.
            if (std::any_of(movie.points.begin(), movie.points.end(),
                            [target](const Movie::Point& point) { return std::abs(point.time - target) <= 100; }))
                continue;
            ++round;
            const auto beginnings = graph.At(target, random() % 2 == 0);
            EXPECT_EQ(beginnings, BeginningGraph(path, type).At(target, false)) << target;
            const Bytes& video = beginnings[0].bytes;
            ASSERT_FALSE(video.empty());
            EXPECT_EQ(video, Bytes(movie.video.begin() + static_cast<ptrdiff_t>(PointOf(movie, target).video),
                                   movie.video.begin() + static_cast<ptrdiff_t>(PointOf(movie, target).video) +
                                       static_cast<ptrdiff_t>(video.size())));
        }
    }
}

// Renderers keep their first sample until the graph runs, so the worker soon waits for room.
TEST_F(FileSource, SeeksWhileRenderersHoldTheirFirstSample) {
    Movie movie({.pictureSize = 160'000});
    movie.Frames(250).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    for (TestSink* sink : {graph.video, graph.audio}) {
        sink->ForgetAtFlush();
        sink->OnSample([sink](IMediaSample&) {
            const size_t flushes = sink->Flushes();
            const auto flushed = [&] { return sink->In().IsFlushing() || sink->Flushes() != flushes; };
            EXPECT_TRUE(Eventually([&] { return flushed() || sink->State() != State_Paused; })) << "nothing freed it";
            return flushed() ? S_FALSE : S_OK;
        });
    }
    ASSERT_TRUE(SUCCEEDED(graph.graph->Pause()));
    const Movie::Point* point = &movie.points[0];
    for (const DWORD milliseconds : {0, 1, 5, 20, 50, 200, 500, 1'000}) {
        Sleep(milliseconds);
        ASSERT_EQ(graph.Seek((++point)->time), S_OK) << milliseconds;
        ASSERT_EQ(graph.Position(), point->time);
    }
    graph.Play();
    EXPECT_EQ(graph.video->Bytes(), From(movie.video, point->video));
}

// Counts what is read of a file.
class CountingStream final : public CUnknown, public IStream {
public:
    explicit CountingStream(ComPtr<IStream> file) : CUnknown("CountingStream", nullptr), m_file(std::move(file)) {}
    DECLARE_IUNKNOWN

    HRESULT Read(void* buffer, ULONG count, ULONG* read) override {
        const HRESULT result = m_file->Read(buffer, count, read);
        m_bytes += *read;
        return result;
    }
    HRESULT Seek(int64_t move, DWORD origin, uint64_t* position) override {
        return m_file->Seek(move, origin, position);
    }
    HRESULT Stat(STATSTG* out, DWORD flags) override { return m_file->Stat(out, flags); }
    HRESULT Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT SetSize(uint64_t) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, uint64_t, uint64_t*, uint64_t*) override { return E_NOTIMPL; }
    HRESULT Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT Revert() override { return E_NOTIMPL; }
    HRESULT LockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT UnlockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT Clone(IStream**) override { return E_NOTIMPL; }

    // Since the last call.
    int64_t TakeCount() { return std::exchange(m_bytes, 0); }

private:
    const ComPtr<IStream> m_file;
    int64_t m_bytes = 0;
};

// A file, and the index of its times.
struct IndexedFile {
    IndexedFile(const fs::path& path, const MovieOptions& options)
        : file(MakeObject<CountingStream>(OpenStreamFile(path.c_str(), GENERIC_READ, &opened))),
          index(*file.Get(), 188, 0,
                {.pid = options.video ? kVideoPid : kAudioPid,
                 .isAudio = !options.video,
                 .subtype = options.video ? TypeOf(options.coding) : MEDIASUBTYPE_MPEG1Payload,
                 .pcrOrigin = options.start * 300}) {
        EXPECT_EQ(opened, S_OK);
    }

    HRESULT opened = E_FAIL;
    ComPtr<CountingStream> file;
    CSeekIndex index;
};

TEST_F(FileSource, TimesAGroupByThePicturesThatItShows) {
    constexpr REFERENCE_TIME kTwo = 2 * Movie::kFrameTime;
    constexpr REFERENCE_TIME kFive = 5 * Movie::kFrameTime;  // the pictures of the last group
    struct {
        const char* what;
        MovieOptions options;
        REFERENCE_TIME earlier;  // than its first picture
        REFERENCE_TIME last;     // how long the last group is shown
    } const cases[] = {
        {"pictures are missing that are shown before the first", {.firstReference = 2}, kTwo, kFive},
        {"no group headers", {.firstReference = 1'000}, 0, kFive},
        {"no group headers, and pictures shown before the first", {.firstReference = 1'000, .leading = 2}, kTwo, kFive},
        {"23.976 a second", {.frameRate = 1}, 0, 5 * 417'083},
        {"29.97 a second", {.frameRate = 4}, 0, 5 * 333'666},
        {"twice 25 a second", {.rateExtension = 1}, 0, kFive / 2},
        {"fields", {.structure = 1}, 0, kFive / 2},
        {"every other field twice", {.repeatFirst = 1}, 0, kFive * 3 / 2},
        {"H.264", {.coding = Coding::kAvcIdr}, 0, kFive},
        {"H.264, open groups", {.coding = Coding::kAvcRecovery, .leading = 2}, kTwo, kFive},
    };
    for (const auto& [what, options, earlier, last] : cases) {
        SCOPED_TRACE(what);
        Movie movie(options);
        movie.Frames(25).Padding();
        IndexedFile file(Write(movie.stream.bytes()), options);
        ASSERT_TRUE(file.index.Build());
        EXPECT_EQ(file.index.First().time, movie.points[0].time - earlier);
        EXPECT_EQ(file.index.First().endTime, movie.points[1].time);
        EXPECT_EQ(file.index.Last().endTime, movie.points[2].time - earlier + last);
    }
}

// Points are found where they stand far apart, and where the file has a hole, and no more is read than it takes.
TEST_F(FileSource, FindsPointsThatStandFarApart) {
    constexpr int64_t kMost = 100'000'000;
    struct {
        const char* what;
        MovieOptions options;
        size_t frames;  // on either side of the hole
        int64_t hole;
        int64_t pause;  // between the two, 90 kHz
        bool isSeekable = true;
        int64_t lead = Movie::kLead;
    } const cases[] = {
        {"12 MB between points", {.gop = 300, .pictureSize = 40'000}, 451, 0, 0},
        {"one point", {.gop = 300, .pictureSize = 40'000}, 149, 0, 0},
        {"no point near the end", {.gop = 600, .pictureSize = 40'000}, 299, 0, 0, false},
        {"a hole", {.gop = 12}, 200, 10'000'000'000, 0},
        {"a hole in a pause", {.gop = 12, .pictureSize = 20'000}, 200, 10'000'000'000, 100 * 90'000},
        {"a hole in sound", {.video = false}, 200, 10'000'000'000, 0},
        {"a hole in a pause of the sound", {.video = false}, 1'000, 3'000'000'000, 100 * 90'000},
        {"time stamps that go back", {.start = 90'000'000, .pictureSize = 40'000}, 300, 0, -1'000 * 90'000, false},
        {"time stamps before the clock", {}, 10, 0, 0, false, -90'000},
    };
    for (const auto& [what, options, frames, hole, pause, isSeekable, lead] : cases) {
        SCOPED_TRACE(what);
        Movie movie(options);
        movie.SetLead(lead).Frames(frames);
        const auto& bytes = movie.stream.bytes();
        const size_t cut = bytes.size();
        movie.Skip(pause).Frames(frames).Padding();
        const fs::path path = Write(Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(cut)));
        fs::resize_file(path, cut + static_cast<uintmax_t>(hole));
        std::ofstream(path, std::ios::binary | std::ios::app)
            .write(reinterpret_cast<const char*>(bytes.data() + cut), static_cast<std::streamsize>(bytes.size() - cut));
        for (Movie::Point& point : movie.points)
            point.filePos += point.filePos >= cut ? static_cast<size_t>(hole) : 0;

        IndexedFile file(path, options);
        ASSERT_EQ(file.index.Build(), isSeekable);
        EXPECT_LE(file.file->TakeCount(), kMost);
        if (!isSeekable)
            continue;
        const REFERENCE_TIME end =
            options.video ? movie.Now() : movie.points.back().time + 240'000;  // a frame of sound
        EXPECT_EQ(file.index.Last().endTime, end);
        std::vector<REFERENCE_TIME> targets = {0, end - 1};
        const REFERENCE_TIME behind = end - static_cast<REFERENCE_TIME>(frames) * Movie::kFrameTime;
        for (const REFERENCE_TIME by : {-20'000'000, -1, 1, 100'000, 500'000, 1'000'000, 30'000'000})
            targets.push_back(behind + by);
        std::mt19937 random(3);
        while (targets.size() < 25)
            targets.push_back(static_cast<REFERENCE_TIME>(random() % static_cast<uint64_t>(end)));
        std::shuffle(targets.begin(), targets.end(), random);
        for (REFERENCE_TIME target : targets) {
            ASSERT_EQ(file.index.MoveTo(&target), S_OK) << target;
            EXPECT_EQ(static_cast<size_t>(file.index.Current().filePos), PointOf(movie, target).filePos) << target;
            EXPECT_LE(file.file->TakeCount(), kMost) << target;
        }
    }
}

TEST_F(FileSource, ReadsAFewSpansForASeek) {
    struct Case {
        const char* what;
        MovieOptions options;
        int64_t stray;  // of the last time stamps
        double most;    // spans
    };
    const Case cases[] = {
        {"MPEG-2", {.gop = 12, .pictureSize = 20'000, .sizes = 4}, 0, 6},
        {"H.264", {.coding = Coding::kAvcIdr, .gop = 50, .pictureSize = 20'000, .sizes = 3}, 0, 6},
        {"across the wrap", {.gop = 12, .start = kWrap - 700 * Movie::kFrame, .pictureSize = 30'000}, 0, 6},
        {"a day too late", {.gop = 12, .pictureSize = 20'000}, 86'400 * 90'000ll, 10},
        {"a minute too late", {.gop = 12, .pictureSize = 20'000}, 60 * 90'000, 10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Movie movie(c.options);
        movie.Frames(1'400);
        const REFERENCE_TIME length = movie.Now();
        movie.SetLead(Movie::kLead + c.stray).Frames(c.options.gop).Padding();
        IndexedFile indexed(Write(movie.stream.bytes()), c.options);
        CountingStream* const file = indexed.file.Get();
        CSeekIndex& index = indexed.index;
        ASSERT_TRUE(index.Build());
        const double span = static_cast<double>(movie.stream.bytes().size()) / (static_cast<double>(length) / 2e7);
        std::mt19937 random(11);
        for (int i = 0; i < SeekRounds(100) / 2; ++i) {
            REFERENCE_TIME target = static_cast<REFERENCE_TIME>(random() % static_cast<uint64_t>(length));
            const REFERENCE_TIME from = index.Current().time;
            file->TakeCount();
            ASSERT_EQ(index.MoveTo(&target), S_OK);
            EXPECT_EQ(static_cast<size_t>(index.Current().filePos), PointOf(movie, target).filePos) << target;
            EXPECT_LE(static_cast<double>(file->TakeCount()) / span, c.most) << "from " << from << " to " << target;
        }
    }
}

}  // namespace
}  // namespace tessel
