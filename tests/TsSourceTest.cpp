// The file source in a graph: what it makes of a file, what comes out when it plays, and where it begins after a seek.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "core/PropertyPages.h"
#include "platform/media/MediaResult.h"
#include "platform/os/Thread.h"
#include "services/objects/Collections.h"
#include "source/TsSource.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {
namespace {

namespace fs = std::filesystem;
using build::Bytes;
using testing::ElementsAre;

constexpr uint16_t kVideoPid = 0x111;
constexpr uint16_t kAudioPid = 0x112;
constexpr uint16_t kPcrPid = 0x101;
constexpr uint16_t kPmtPid = 0x100;
constexpr int64_t kWrap = int64_t{1} << 33;

enum class Coding { kMpeg2, kMpeg4, kAvcParameters, kAvcIdr, kAvcRecovery, kOther };

struct MovieOptions {
    Coding coding = Coding::kMpeg2;
    size_t gop = 10;             // frames
    int64_t start = 90'000;      // of the PCR, 90 kHz
    bool named = true;           // with an SDT
    uint8_t firstReference = 0;  // temporal_reference of the first picture of a group
    bool video = true;
    size_t pictureSize = 3'000;
};

// A file of 25 frames a second: a PCR, then a PES packet of video and one of audio. Remembers what stands where.
class Movie {
public:
    static constexpr int64_t kLead = 45'000;  // from the PCR to the time stamp
    static constexpr int64_t kFrame = 3'600;
    static constexpr REFERENCE_TIME kFrameTime = 400'000;

    struct Point {
        size_t filePos;
        REFERENCE_TIME time;
        size_t video;  // bytes of the stream before it
        size_t audio;
    };

    explicit Movie(const MovieOptions& options = {}) : m_options(options), m_time(options.start) { Tables(1); }

    Movie& Tables(uint16_t transportStreamId) {
        stream.Pcr(kPcrPid, m_time * 300);
        Table(0, build::Pat(transportStreamId, {{1, kPmtPid}}));
        build::PmtFields fields{.program = 1, .pcrPid = kPcrPid};
        const bool avc = m_options.coding != Coding::kMpeg2 && m_options.coding != Coding::kMpeg4;
        const uint8_t type = m_options.coding == Coding::kMpeg2 ? 0x02 : avc ? 0x1B : 0x10;
        if (m_options.video)
            fields.streams.push_back({type, kVideoPid});
        fields.streams.push_back({0x03, kAudioPid});
        Table(kPmtPid, build::Pmt(fields));
        if (m_options.named)
            Table(0x11, build::Sdt({.transportStreamId = transportStreamId, .services = {{1}}}));
        return *this;
    }
    Movie& Frames(size_t count) {
        for (; count > 0; --count, ++m_frames, m_time += kFrame) {
            if (m_time >= kWrap && wrap == 0)
                wrap = stream.bytes().size();
            stream.Pcr(kPcrPid, m_time % kWrap * 300);
            const int64_t pts = (m_time + kLead) % kWrap;
            if (m_frames % m_options.gop == 0 && m_options.video)
                points.push_back({stream.bytes().size(), Now(), video.size(), audio.size()});
            if (m_options.video)
                Add(kVideoPid, 0xE0, Picture(m_frames % m_options.gop), pts, video);
            if (!m_options.video)
                points.push_back({stream.bytes().size(), Now(), video.size(), audio.size()});
            Bytes frame = Filler(576);
            const uint8_t header[] = {0xFF, 0xFD, 0xA4, 0x00};  // layer II, 192 kbit/s, 48 kHz
            std::copy(std::begin(header), std::end(header), frame.begin());
            Add(kAudioPid, 0xC0, frame, pts, audio);
        }
        return *this;
    }
    Movie& Skip(int64_t by) {
        m_time += by;
        return *this;
    }
    // So that the packets before it are parsed.
    Movie& Padding() {
        for (int i = 0; i < 5; ++i)
            stream.Null();
        return *this;
    }
    // Media time of the frame that comes next.
    REFERENCE_TIME Now() const { return (m_time + kLead - m_options.start) * 1000 / 9; }

    build::StreamBuilder stream;
    std::vector<Point> points;
    Bytes video;
    Bytes audio;
    size_t wrap = 0;  // where the PCR has wrapped

private:
    void Table(uint16_t pid, const Bytes& section) {
        stream.Section(pid, section);
        stream.Section(pid, build::ShortSection(0xFE, {}));
    }
    void Add(uint16_t pid, uint8_t id, const Bytes& data, int64_t pts, Bytes& all) {
        all.insert(all.end(), data.begin(), data.end());
        stream.Pes(pid, id, data, {.pts = pts, .unbounded = id == 0xE0});
    }
    // Nothing in it looks like a start code or a sync word.
    Bytes Filler(size_t size) {
        Bytes bytes(size);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(2 + m_filler++ % 65);
        return bytes;
    }
    // Some bytes before the headers move them over the packets' edges.
    Bytes Picture(size_t inGroup) {
        const bool key = inGroup == 0;
        const auto reference = static_cast<uint8_t>(key ? m_options.firstReference : inGroup);
        const auto mpeg2 = [&] {
            const Bytes picture = {0,
                                   0,
                                   1,
                                   0,
                                   static_cast<uint8_t>(reference >> 2),
                                   static_cast<uint8_t>(reference << 6 | 8),
                                   0xFF,
                                   0xF8,
                                   0,
                                   0,
                                   1,
                                   0xB5,
                                   0x8F,
                                   0xFF,
                                   0xF3,
                                   0x40,
                                   0x80,
                                   0x80};
            const Bytes sequence = {0,    0, 1, 0xB3, 0x2D, 0x02, 0x40, 0x23, 0xFF, 0xFF, 0xE0,
                                    0x18, 0, 0, 1,    0xB5, 0x14, 0x8A, 0x00, 0x01, 0x00, 0x00};
            return key ? build::Join({sequence, picture}) : picture;
        };
        Bytes headers;
        switch (m_options.coding) {
        case Coding::kMpeg2:
            headers = mpeg2();
            break;
        case Coding::kMpeg4:
            headers = {0, 0, 1, 0xB6, static_cast<uint8_t>(key ? 0x10 : 0x50)};
            break;
        case Coding::kAvcParameters:
            headers = key ? Bytes{0, 0, 1, 9, 0x10, 0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 0x88}
                          : Bytes{0, 0, 1, 9, 0x30, 0, 0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x67, 0x42};
            break;
        case Coding::kAvcIdr:
            headers = key ? Bytes{0, 0, 1, 0x65, 0x88} : Bytes{0, 0, 1, 0x01, 0x9A, 0, 0, 1, 0x65};
            break;
        case Coding::kAvcRecovery:
            // Another message, of 260 bytes, comes before it.
            headers = {0, 0, 1, 6, 5, 0xFF, 5};
            headers.resize(headers.size() + 260, 0x55);
            headers = build::Join({headers, {static_cast<uint8_t>(key ? 6 : 1), 1, 0x84, 0x80, 0, 0, 1, 0x41, 0x9A}});
            break;
        case Coding::kOther:
            break;
        }
        return build::Join({Filler(inGroup == 0 ? (m_frames * 7) % 200 : 0), headers, Filler(m_options.pictureSize)});
    }

    const MovieOptions m_options;
    int64_t m_time;
    size_t m_frames = 0;
    size_t m_filler = 0;
};

class FileSource : public testing::Test {
protected:
    void SetUp() override {
        m_folder = fs::temp_directory_path() / ("tessel-source-" + std::to_string(getpid()));
        fs::create_directories(m_folder);
    }
    void TearDown() override { fs::remove_all(m_folder); }

    fs::path Write(const Bytes& bytes, const char* name = "a.ts") {
        const fs::path path = m_folder / name;
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    fs::path m_folder;
};

// source → sinks, in a graph without a clock.
class SourceGraph {
public:
    SourceGraph() : graph(MakeObject<CFilterGraph>()) {
        EXPECT_EQ(CreateTsSource(filter.Put()), S_OK);
        EXPECT_EQ(graph->AddFilter(filter.Get(), u"source"), S_OK);
        file = filter.As<IFileSourceFilter>();
        seeking = filter.As<IMediaSeeking>();
    }
    ~SourceGraph() { EXPECT_EQ(graph->Stop(), S_OK); }

    HRESULT Load(const fs::path& path) { return file->Load(path.u16string().c_str(), nullptr); }
    TestSink& Add(const OLECHAR* name, ULONG pid, const GUID& major, const GUID& sub) {
        AM_MEDIA_TYPE type = MakeMediaType(major, sub);
        ComPtr<IPin> pin;
        EXPECT_EQ(filter.As<IMpeg2Demultiplexer>()->CreateOutputPin(&type, name, pin.Put()), S_OK);
        EXPECT_EQ(pin.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
        return Connect(pin.Get(), major, sub);
    }
    TestSink& Connect(IPin* pin, const GUID& major, const GUID& sub) {
        m_sinks.push_back(MakeObject<TestSink>(major, sub));
        TestSink& sink = *m_sinks.back().Get();
        EXPECT_EQ(graph->AddFilter(&sink, nullptr), S_OK);
        EXPECT_EQ(graph->ConnectDirect(pin, &sink.In(), nullptr), S_OK);
        return sink;
    }
    // The two streams of a movie.
    void AddStreams(const GUID& videoType = MEDIASUBTYPE_MPEG2_VIDEO) {
        video = &Add(u"v", kVideoPid, MEDIATYPE_Video, videoType);
        audio = &Add(u"a", kAudioPid, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
    }
    void Forget() {
        for (const auto& sink : m_sinks)
            sink->Forget();
    }
    // To the end of the stream.
    void Play() {
        ASSERT_TRUE(SUCCEEDED(graph->Run(0)));
        for (const auto& sink : m_sinks)
            ASSERT_TRUE(sink->WaitForEnd()) << "no end of stream";
    }
    HRESULT Seek(REFERENCE_TIME time, DWORD flags = AM_SEEKING_AbsolutePositioning) {
        return seeking->SetPositions(&time, flags, nullptr, 0);
    }
    REFERENCE_TIME Duration() {
        REFERENCE_TIME duration = -1;
        EXPECT_EQ(seeking->GetDuration(&duration), S_OK);
        return duration;
    }
    REFERENCE_TIME Position() {
        REFERENCE_TIME position = -1;
        EXPECT_EQ(seeking->GetCurrentPosition(&position), S_OK);
        return position;
    }
    // The result of the abort that the graph was told of; S_OK when it was not.
    HRESULT AbortResult() {
        MediaEvent event;
        while (SUCCEEDED(graph->GetEvent(&event, 1'000)))
            if (event.code == EC_ERRORABORT)
                return static_cast<HRESULT>(event.param1);
        return S_OK;
    }

    ComPtr<CFilterGraph> graph;
    ComPtr<IBaseFilter> filter;
    ComPtr<IFileSourceFilter> file;
    ComPtr<IMediaSeeking> seeking;
    TestSink* video = nullptr;
    TestSink* audio = nullptr;

private:
    std::vector<ComPtr<TestSink>> m_sinks;
};

GUID TypeOf(Coding coding) {
    return coding == Coding::kMpeg2   ? MEDIASUBTYPE_MPEG2_VIDEO
           : coding == Coding::kMpeg4 ? MEDIASUBTYPE_MPEG4_VIDEO
                                      : MEDIASUBTYPE_AVC_VIDEO;
}

Bytes From(const Bytes& bytes, size_t offset) {
    return {bytes.begin() + static_cast<ptrdiff_t>(offset), bytes.end()};
}

TEST_F(FileSource, PlaysEveryByteWithItsTime) {
    struct Case {
        const char* what;
        MovieOptions options;
        size_t garbage;
        bool units192;
    };
    const Case cases[] = {{"plain", {}, 0, false},
                          {"in units of 192 bytes", {}, 0, true},
                          {"behind 10,239 bytes of something else", {}, 10'239, false},
                          {"without names", {.named = false}, 0, false},
                          {"small", {.pictureSize = 100}, 0, false},
                          {"large", {.pictureSize = 150'000}, 0, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Movie movie(c.options);
        movie.Frames(95).Padding();
        const Bytes packets = c.units192 ? build::Units192(movie.stream.bytes()) : movie.stream.bytes();
        SourceGraph graph;
        ASSERT_EQ(graph.Load(Write(build::Join({Bytes(c.garbage, 0x11), packets}))), S_OK);
        graph.AddStreams();
        EXPECT_EQ(graph.Duration(), movie.points[0].time + 95 * Movie::kFrameTime);
        for (int round = 0; round < 2; ++round) {
            graph.Forget();
            graph.Play();
            EXPECT_EQ(graph.video->Bytes(), movie.video);
            EXPECT_EQ(graph.audio->Bytes(), movie.audio);
            for (TestSink* sink : {graph.video, graph.audio}) {
                const auto samples = sink->Samples();
                ASSERT_FALSE(samples.empty());
                EXPECT_TRUE(samples[0].discontinuity);
                const auto times = sink->Times();
                ASSERT_EQ(times.size(), 95u);
                for (size_t i = 0; i < times.size(); ++i)
                    EXPECT_EQ(times[i], movie.points[0].time + static_cast<int64_t>(i) * Movie::kFrameTime);
                EXPECT_EQ(samples[0].mediaTime, times[0]);
            }
            EXPECT_EQ(graph.Position(), movie.points[0].time + 94 * Movie::kFrameTime);
            ASSERT_EQ(graph.graph->Stop(), S_OK);
        }
    }
}

// A client's own bounds: a part ends as a file does, and a new beginning forgets the seek.
TEST_F(FileSource, PlaysAPartOfTheFile) {
    Movie movie;
    movie.Frames(95).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    auto& source = static_cast<CTsSource&>(*graph.filter);
    const Movie::Point& begin = movie.points[3];
    const Movie::Point& end = movie.points[6];
    ASSERT_EQ(graph.Seek(begin.time, AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame), S_OK);
    EXPECT_EQ(source.StartPosition(), static_cast<int64_t>(begin.filePos));
    // With so much of the next packet that the one before it is known to be whole.
    source.SetEndPosition(static_cast<int64_t>(end.filePos) + 7);
    const auto part = [](const Bytes& bytes, size_t from, size_t to) { return Bytes(&bytes[from], &bytes[to]); };
    graph.Play();
    EXPECT_EQ(graph.video->Bytes(), part(movie.video, begin.video, end.video));
    EXPECT_EQ(graph.audio->Bytes(), part(movie.audio, begin.audio, end.audio));
    EXPECT_EQ(source.ReadPosition(), static_cast<int64_t>(end.filePos) + 7);
    EXPECT_FALSE(source.WasAborted());

    ASSERT_EQ(graph.graph->Stop(), S_OK);
    graph.Forget();
    source.StartAtBeginning();
    EXPECT_EQ(graph.Position(), 0);
    graph.Play();
    EXPECT_EQ(graph.video->Bytes(), part(movie.video, 0, end.video));
    EXPECT_EQ(graph.video->Times()[0], movie.points[0].time);
    // Another file has other bounds.
    ASSERT_EQ(graph.graph->Stop(), S_OK);
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes(), "b.ts")), S_OK);
    graph.Forget();
    graph.Play();
    EXPECT_EQ(graph.video->Bytes(), movie.video);
}

TEST_F(FileSource, LoadsOnlyWhatHasTablesAndClocks) {
    Movie good;
    good.Frames(60).Padding();
    const Bytes& bytes = good.stream.bytes();
    Movie jump;
    jump.Frames(5).Skip(Movie::kFrame * 25).Frames(5).Padding();
    Movie another;
    another.Frames(5).Tables(2).Frames(5).Padding();
    build::StreamBuilder noTables;
    for (int i = 0; i < 100; ++i)
        noTables.Pcr(kPcrPid, i * 1'000'000).Null();
    Movie onePcr;
    onePcr.Padding();
    struct Case {
        const char* what;
        Bytes bytes;
        HRESULT result;
    };
    const Case cases[] = {{"empty", {}, E_FAIL},
                          {"one byte", {0x47}, E_FAIL},
                          {"no sync", Bytes(50'000, 0x11), E_FAIL},
                          {"nothing but sync bytes", Bytes(50'000, 0x47), E_FAIL},
                          {"sync at the limit", build::Join({Bytes(10'240, 0x11), bytes}), E_FAIL},
                          {"no tables", noTables.bytes(), E_FAIL},
                          {"one PCR", onePcr.stream.bytes(), E_FAIL},
                          {"a jump of the clock", jump.stream.bytes(), E_FAIL},
                          {"another transport stream", another.stream.bytes(), E_FAIL},
                          {"good", bytes, S_OK}};
    SourceGraph graph;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // After the good one too.
        for (const Bytes* content : {&c.bytes, &bytes, &c.bytes}) {
            const HRESULT expected = content == &bytes ? S_OK : c.result;
            EXPECT_EQ(graph.Load(Write(*content)), expected);
            OLECHAR* name = nullptr;
            EXPECT_EQ(graph.file->GetCurFile(&name, nullptr), S_OK);
            EXPECT_EQ(name != nullptr, expected == S_OK);
            CoTaskMemFree(name);
            EXPECT_EQ(graph.filter->Pause(), expected == S_OK ? S_OK : E_UNEXPECTED);
            EXPECT_EQ(graph.filter->Stop(), S_OK);
        }
    }
}

// A file that was cut anywhere plays what is left, or is refused.
TEST_F(FileSource, PlaysWhatIsLeftOfAFileCutAnywhere) {
    Movie movie({.gop = 2, .pictureSize = 150});
    movie.Frames(8).Padding();
    const Bytes& whole = movie.stream.bytes();
    std::vector<size_t> cuts;
    for (size_t cut = 0; cut < whole.size(); cut += cut % 188 < 12 || cut % 188 > 180 ? 3 : 44)
        cuts.push_back(cut);
    size_t loaded = 0;
    for (const size_t cut : cuts) {
        SCOPED_TRACE(cut);
        SourceGraph graph;
        if (FAILED(graph.Load(Write({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(cut)}))))
            continue;
        ++loaded;
        graph.AddStreams();
        graph.Duration();
        graph.Play();
        const Bytes video = graph.video->Bytes();
        ASSERT_LE(video.size(), movie.video.size());
        EXPECT_TRUE(std::equal(video.begin(), video.end(), movie.video.begin()));
        // No more than the packet at the cut and the one before it are missing.
        EXPECT_GE(video.size() + graph.audio->Bytes().size() + 2 * 188,
                  cut * 6 / 10 > 2'000 ? cut * 6 / 10 - 2'000 : 0);
    }
    EXPECT_GT(loaded, cuts.size() / 3);
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

TEST_F(FileSource, PlaysOnBehindAHole) {
    Movie movie;
    movie.Frames(40);
    const size_t hole = movie.stream.bytes().size() + 700;
    const size_t video = movie.video.size();
    movie.Frames(40).Padding();
    Bytes bytes = movie.stream.bytes();
    std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(hole), 1'000, uint8_t{0});
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(bytes)), S_OK);
    graph.AddStreams();
    graph.Play();
    EXPECT_EQ(graph.audio->Bytes(), movie.audio);
    const Bytes received = graph.video->Bytes();
    ASSERT_GE(received.size() + 8 * 184, movie.video.size());
    ASSERT_LT(received.size(), movie.video.size());
    EXPECT_TRUE(std::equal(received.begin(), received.begin() + static_cast<ptrdiff_t>(video), movie.video.begin()));
    EXPECT_TRUE(std::equal(movie.video.rbegin(), movie.video.rend() - static_cast<ptrdiff_t>(video + 3'000),
                           received.rbegin()));
}

TEST_F(FileSource, EndsWithAnAbortWhereTheClockJumps) {
    struct Case {
        const char* what;
        void (*jump)(Movie& movie);
    };
    const Case cases[] = {
        {"forward", [](Movie& movie) { movie.Skip(Movie::kFrame * 26); }},
        {"back", [](Movie& movie) { movie.Skip(-Movie::kFrame * 3); }},
        {"indicator", [](Movie& movie) { movie.stream.Packet(kPcrPid, {}, {.discontinuity = true}); }},
        {"another transport stream", [](Movie& movie) { movie.Tables(2); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Movie movie;
        movie.Frames(100);
        const size_t points = movie.points.size();
        const size_t video = movie.video.size();
        c.jump(movie);
        movie.Frames(100).Padding();
        SourceGraph graph;
        ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
        graph.AddStreams();
        ASSERT_GT(graph.Duration(), 0);
        graph.Play();
        EXPECT_EQ(graph.AbortResult(), VFW_E_INVALID_FILE_FORMAT);
        EXPECT_LE(graph.video->Bytes().size(), video + 65'536);
        EXPECT_LE(graph.Position(), movie.points.back().time);
        // Behind the jump it plays.
        ASSERT_TRUE(SUCCEEDED(graph.graph->Pause()));
        graph.Forget();
        const Movie::Point& behind = movie.points[points + 5];
        ASSERT_EQ(graph.Seek(behind.time + 200'000), S_OK);
        graph.Play();
        EXPECT_EQ(graph.video->Bytes(), From(movie.video, behind.video));
    }
}

// What becomes of the file while it is read. More of it is unread than the outputs hold while they start.
TEST_F(FileSource, FollowsAFileThatOthersChange) {
    Movie movie({.pictureSize = 30'000});
    movie.Frames(500);
    const size_t written = movie.stream.bytes().size();
    movie.Frames(100).Padding();
    const Bytes& whole = movie.stream.bytes();
    struct Case {
        const char* what;
        std::function<void(const fs::path&)> change;
        size_t least;  // bytes of video
        size_t most;
    };
    const auto append = [&](const fs::path& path) {
        std::ofstream(path, std::ios::binary | std::ios::app)
            .write(reinterpret_cast<const char*>(whole.data()) + written,
                   static_cast<std::streamsize>(whole.size() - written));
    };
    const size_t first = 500 * 30'000;
    const Case cases[] = {
        {"grows", append, movie.video.size(), movie.video.size()},
        {"shrinks", [](const fs::path& path) { fs::resize_file(path, 14'000'000); }, 13'000'000, 14'000'000},
        {"is emptied", [](const fs::path& path) { fs::resize_file(path, 0); }, 0, 13'000'000},
        {"is deleted", [](const fs::path& path) { fs::remove(path); }, first - 1'000, first + 20'000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path path = Write({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(written)});
        SourceGraph graph;
        ASSERT_EQ(graph.Load(path), S_OK);
        graph.AddStreams();
        CEvent begun(EventReset::kManual);
        CEvent changed(EventReset::kManual);
        graph.video->OnSample([&](IMediaSample&) {
            begun.Set();
            EXPECT_TRUE(changed.Wait(kTestWait)) << "the change of the file";
            return S_OK;
        });
        ASSERT_TRUE(SUCCEEDED(graph.graph->Run(0)));
        ASSERT_TRUE(begun.Wait(kTestWait)) << "no sample";
        EXPECT_EQ(graph.Seek(0), E_UNEXPECTED) << "it runs";
        EXPECT_EQ(graph.Load(path), VFW_E_NOT_STOPPED);
        c.change(path);
        changed.Set();
        ASSERT_TRUE(graph.video->WaitForEnd());
        const Bytes received = graph.video->Bytes();
        EXPECT_GE(received.size(), c.least);
        EXPECT_LE(received.size(), c.most);
        EXPECT_TRUE(std::equal(received.begin(), received.end(), movie.video.begin()));
    }
}

TEST_F(FileSource, AnswersItsInterfaces) {
    Movie movie({.pictureSize = 300'000});
    movie.Frames(50).Padding();
    SourceGraph graph;
    // Nothing is open.
    const auto& seeking = graph.seeking;
    DWORD capabilities = 1;
    EXPECT_EQ(seeking->GetCapabilities(&capabilities), S_OK);
    EXPECT_EQ(capabilities, 0u);
    EXPECT_EQ(graph.Duration(), 0);
    EXPECT_EQ(graph.Position(), 0);
    EXPECT_EQ(graph.Seek(0), S_FALSE);
    EXPECT_EQ(graph.file->Load(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(graph.file->GetCurFile(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(graph.file->Load(std::u16string(260, u'a').c_str(), nullptr), E_INVALIDARG);
    EXPECT_EQ(graph.file->Load(u"\xD800.ts", nullptr), E_POINTER) << "no text";
    EXPECT_EQ(graph.Load(m_folder / "none.ts"), E_FAIL);
    EXPECT_EQ(graph.Load(m_folder), E_FAIL);

    const fs::path path = Write(movie.stream.bytes(), "\u00E4\u20AC\U0001F600.ts");
    ASSERT_EQ(graph.Load(path), S_OK);
    OLECHAR* name = nullptr;
    AM_MEDIA_TYPE type;
    EXPECT_EQ(graph.file->GetCurFile(&name, &type), S_OK);
    EXPECT_EQ(std::u16string(name), path.u16string());
    CoTaskMemFree(name);
    EXPECT_EQ(type.majortype, MEDIATYPE_Stream);
    EXPECT_EQ(type.subtype, MEDIASUBTYPE_MPEG2_TRANSPORT);
    EXPECT_EQ(type.formattype, FORMAT_None);

    // No stream is mapped yet; then one is.
    EXPECT_EQ(graph.Duration(), 0);
    graph.AddStreams();
    EXPECT_EQ(graph.Duration(), movie.Now());
    EXPECT_EQ(seeking->GetCapabilities(&capabilities), S_OK);
    EXPECT_EQ(capabilities, 0x2Fu);
    struct Check {
        DWORD asked;
        HRESULT result;
        DWORD left;
    };
    for (const Check& check : {Check{0x2F, S_OK, 0x2F}, {0x3F, S_FALSE, 0x2F}, {0x10, E_FAIL, 0}}) {
        DWORD asked = check.asked;
        EXPECT_EQ(seeking->CheckCapabilities(&asked), check.result);
        EXPECT_EQ(asked, check.left);
    }
    const GUID frames = MEDIATYPE_Video;
    GUID format = frames;
    EXPECT_EQ(seeking->GetTimeFormat(&format), S_OK);
    EXPECT_EQ(format, TIME_FORMAT_MEDIA_TIME);
    EXPECT_EQ(seeking->IsFormatSupported(&frames), S_FALSE);
    EXPECT_EQ(seeking->SetTimeFormat(&frames), E_INVALIDARG);
    EXPECT_EQ(seeking->SetTimeFormat(&format), S_OK);
    double rate = 0;
    EXPECT_EQ(seeking->GetRate(&rate), S_OK);
    EXPECT_EQ(rate, 1.0);
    for (const HRESULT result : {seeking->SetRate(1.0), seeking->GetPreroll(nullptr),
                                 seeking->ConvertTimeFormat(nullptr, nullptr, 0, nullptr)})
        EXPECT_EQ(result, E_NOTIMPL);
    for (const HRESULT result :
         {seeking->GetDuration(nullptr), seeking->GetCurrentPosition(nullptr), seeking->GetRate(nullptr),
          seeking->GetAvailable(nullptr, nullptr), seeking->SetTimeFormat(nullptr), seeking->CheckCapabilities(nullptr),
          seeking->SetPositions(nullptr, 1, nullptr, 0)})
        EXPECT_EQ(result, E_POINTER);

    EXPECT_EQ(graph.Seek(5, 0), S_OK) << "no positioning";
    EXPECT_EQ(graph.Seek(5, 3), E_INVALIDARG);
    EXPECT_EQ(graph.Position(), 0);
    EXPECT_EQ(graph.Seek(10'000'000), S_OK);
    EXPECT_EQ(graph.Seek(-4'000'000, AM_SEEKING_RelativePositioning), S_OK);
    EXPECT_EQ(graph.Position(), 6'000'000);
    CEvent leave(EventReset::kManual);
    graph.video->OnSample([&](IMediaSample&) { return leave.Wait(kTestWait) ? S_OK : E_FAIL; });
    ASSERT_TRUE(SUCCEEDED(graph.graph->Pause()));
    EXPECT_EQ(graph.Seek(6'000'000), S_OK);
    EXPECT_EQ(graph.video->Flushes(), 0u) << "it is there already";
    leave.Set();

    CAUUID pages;
    ASSERT_EQ(graph.filter.As<ISpecifyPropertyPages>()->GetPages(&pages), S_OK);
    EXPECT_THAT(std::vector<GUID>(pages.pElems, pages.pElems + pages.cElems),
                ElementsAre(kPageServices, kPageProgramAssociationTable, kPagePidMapping, kPageOutputPins));
    CoTaskMemFree(pages.pElems);
    const auto information = graph.filter.As<IDvbServiceInformationEx>();
    EXPECT_EQ(information->IsServiceInformationComplete(), S_OK);
    EXPECT_EQ(information->AdviseEvents(nullptr, nullptr), S_OK);
    EXPECT_EQ(information->UnadviseEvents(7), S_OK);
    ComPtr<IDvbProgramMapTable> table;
    EXPECT_EQ(information->GetProgramMapTable(1, table.Put()), S_OK);
    ComPtr<IDvbMapping> services;
    ASSERT_EQ(information->GetServices(services.Put()), S_OK);
    EXPECT_TRUE(ItemAs<IDvbService>(services.Get(), 0));
}

// Another file in the same filter, and pins for what is in it.
TEST_F(FileSource, PlaysTheServiceThatIsChosen) {
    SourceGraph graph;
    Movie first({.coding = Coding::kAvcIdr});
    Movie second({.pictureSize = 2'000});
    bool connected = false;
    for (Movie* movie : {&first, &second, &second}) {
        movie->Frames(50).Padding();
        ASSERT_EQ(graph.Load(Write(movie->stream.bytes(), connected ? "b.ts" : "a.ts")), S_OK);
        ASSERT_EQ(graph.filter.As<IGetSetParam>()->SetParam(kParamSelectService, 0), S_OK);
        ComPtr<IPin> video;
        ComPtr<IPin> audio;
        ASSERT_EQ(graph.filter->FindPin(u"VOut", video.Put()), S_OK);
        ASSERT_EQ(graph.filter->FindPin(u"AOut", audio.Put()), S_OK);
        EXPECT_EQ(graph.Position(), 0);
        if (movie == &first)
            continue;
        if (!std::exchange(connected, true)) {
            graph.video = &graph.Connect(video.Get(), MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
            graph.audio = &graph.Connect(audio.Get(), MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        }
        graph.Forget();
        graph.Play();
        EXPECT_EQ(graph.video->Bytes(), movie->video);
        EXPECT_EQ(graph.audio->Bytes(), movie->audio);
        ASSERT_EQ(graph.graph->Stop(), S_OK);
    }
}

// Plays, seeks, pauses and stops in any order, while another thread asks.
TEST_F(FileSource, StandsWhateverItsClientsDo) {
    Movie movie;
    movie.Frames(300).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    const REFERENCE_TIME duration = graph.Duration();
    std::atomic<bool> done{false};
    std::thread asking([&] {
        while (!done) {
            graph.Position();
            EXPECT_EQ(graph.Duration(), duration);
            DWORD capabilities = 0;
            graph.seeking->GetCapabilities(&capabilities);
            REFERENCE_TIME from = 0;
            REFERENCE_TIME to = 0;
            EXPECT_EQ(graph.seeking->GetAvailable(&from, &to), S_OK);
            EXPECT_EQ(graph.filter.As<IDvbServiceInformation>()->IsServiceInformationComplete(), S_OK);
        }
    });
    std::mt19937 random(7);
    for (int i = 0; i < 150; ++i) {
        REFERENCE_TIME target = static_cast<REFERENCE_TIME>(random() % static_cast<uint64_t>(duration));
        switch (random() % 6) {
        case 0:
            ASSERT_TRUE(SUCCEEDED(graph.graph->Run(0)));
            break;
        case 1:
            ASSERT_TRUE(SUCCEEDED(graph.graph->Pause()));
            break;
        case 2:
            ASSERT_EQ(graph.graph->Stop(), S_OK);
            break;
        case 3:
            ASSERT_TRUE(
                SUCCEEDED(graph.graph->SetPositions(graph.seeking.Get(), &target, AM_SEEKING_AbsolutePositioning)));
            break;
        case 4:
            Sleep(random() % 8);
            break;
        default:
            const HRESULT result = graph.Seek(target, AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame);
            ASSERT_TRUE(result == S_OK || result == E_UNEXPECTED) << std::hex << result;
        }
    }
    done = true;
    asking.join();
    ASSERT_EQ(graph.graph->Stop(), S_OK);
    ASSERT_EQ(graph.Seek(1), S_OK);
    graph.Forget();
    graph.Play();
    EXPECT_EQ(graph.video->Bytes(), movie.video);
    EXPECT_EQ(graph.audio->Bytes(), movie.audio);
    EXPECT_EQ(graph.AbortResult(), S_OK);
}

}  // namespace
}  // namespace tessel
