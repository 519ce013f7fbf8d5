// The file source in a graph: what it makes of a file, what comes out when it plays, and what it answers.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "platform/com/TaskMemory.h"
#include "platform/os/Thread.h"
#include "services/objects/Collections.h"
#include "tests/support/ProgramBuilder.h"
#include "tests/support/SourceFixture.h"

namespace tessel {
namespace {

using build::Bytes;
using testing::ElementsAre;

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
    const GUID frames = MEDIATYPE_Video;
    GUID format = frames;
    EXPECT_EQ(seeking->GetTimeFormat(&format), S_OK);
    EXPECT_EQ(format, TIME_FORMAT_MEDIA_TIME);
    EXPECT_EQ(seeking->IsFormatSupported(&frames), S_FALSE);
    EXPECT_EQ(seeking->SetTimeFormat(&frames), E_INVALIDARG);
    EXPECT_EQ(seeking->SetTimeFormat(&format), S_OK);

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

    const auto information = graph.filter.As<IDvbServiceInformationEx>();
    EXPECT_EQ(information->IsServiceInformationComplete(), S_OK);
    ComPtr<IDvbProgramMapTable> table;
    EXPECT_EQ(information->GetProgramMapTable(1, table.Put()), S_OK);
    ComPtr<IDvbMapping> services;
    ASSERT_EQ(information->GetServices(services.Put()), S_OK);
    EXPECT_TRUE(ItemAs<IDvbService>(services.Get(), 0));
}

// What clients may ask for, and do, while it plays is there from the start.
TEST_F(FileSource, IsReadyWhenItPauses) {
    Movie movie;
    movie.stream.Section(0x1FFB, build::Mgt({{0x0100, 0x1D00}})).Section(0x1FFB, build::ShortSection(0xFE, {}));
    movie.Frames(50).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    ASSERT_TRUE(SUCCEEDED(graph.graph->Pause()));
    EXPECT_EQ(graph.Duration(), movie.Now()) << "nobody had asked before";
    EXPECT_EQ(static_cast<CTsSource&>(*graph.filter).AddTablePid(0xCB, 0, 0x1D00), E_ACCESSDENIED)
        << "the table is known, and what it lists is read again";
}

// The first pin's stream times the file, whatever comes after it.
TEST_F(FileSource, TheFirstVideoElseTheFirstAudioIsTheMaster) {
    for (const bool video : {true, false}) {
        Movie movie({.video = video, .twins = true});
        movie.Frames(50).Padding();
        SourceGraph graph;
        ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
        graph.Add(u"a", kAudioPid, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        graph.Add(u"b", kAudioTwin, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        if (video) {
            graph.Add(u"v", kVideoPid, MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
            graph.Add(u"w", kVideoTwin, MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
        }
        // The last audio frame is 24 ms long.
        EXPECT_EQ(graph.Duration(), video ? movie.Now() : movie.Now() - Movie::kFrameTime + 240'000);
    }
}

// The second programme's clock begins late.
TEST_F(FileSource, ScansUntilEveryProgrammeHasItsClock) {
    const build::Programme late{
        .number = 2, .pmtPid = 0x200, .pcrPid = 0x201, .streams = {build::Audio(kAudioTwin, 20'000)}};
    build::ProgrammeBuilder builder({{.streams = {build::Audio(kAudioPid, 20'000)}}});
    build::StreamBuilder& stream = builder.stream();
    stream.Packet(0x101, Bytes(184)).Packet(late.pcrPid, Bytes(184));
    const std::pair<uint16_t, Bytes> tables[] = {
        {0, build::Pat(1, {{1, 0x100}, {2, late.pmtPid}})},
        {0x100, build::Pmt({.program = 1, .pcrPid = 0x101, .streams = {{0x03, kAudioPid}}})},
        {late.pmtPid, build::Pmt({.program = 2, .pcrPid = late.pcrPid, .streams = {{0x03, kAudioTwin}}})},
        {0x11, build::Sdt({.transportStreamId = 1, .services = {{1}, {2}}})}};
    for (const auto& [pid, section] : tables)
        stream.Section(pid, section).Section(pid, build::ShortSection(0xFE, {}));
    builder.Frames(20);
    builder.programmes().push_back(late);
    constexpr int64_t kFrames = 30;
    builder.Frames(kFrames).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(builder.Take())), S_OK);
    graph.Add(u"a", kAudioTwin, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
    // Of its own first clock, not of the file's.
    EXPECT_EQ(graph.Duration(),
              (build::ProgrammeBuilder::kLead + kFrames * build::ProgrammeBuilder::kFrame) * 1000 / 9);
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

// The end of the stream goes to pins without a content too.
TEST_F(FileSource, PlaysWhatIsMappedBehindTheEnd) {
    Movie movie;
    movie.Frames(50).Padding();
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.Add(u"v", kVideoPid, MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);
    ComPtr<IPin> late;
    ASSERT_EQ(graph.filter.As<IMpeg2Demultiplexer>()->CreateOutputPin(nullptr, u"late", late.Put()), S_OK);
    graph.Play();
    ASSERT_EQ(graph.graph->Stop(), S_OK);
    const ULONG pid = kAudioPid;
    ASSERT_EQ(late.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
    const TestSink& audio = graph.Connect(late.Get(), GUID_NULL, GUID_NULL);
    graph.Play();
    EXPECT_EQ(audio.Bytes(), movie.audio);
}

TEST_F(FileSource, TwoChoicesAtOnceMakeOnePairOfPins) {
    Movie movie;
    movie.Frames(20).Padding();
    const fs::path path = Write(movie.stream.bytes());
    for (int round = 0; round < 50; ++round) {
        SourceGraph graph;
        ASSERT_EQ(graph.Load(path), S_OK);
        std::atomic<int> ready{0};
        const auto choose = [&] {
            ++ready;
            while (ready < 2) {
            }
            EXPECT_EQ(graph.filter.As<IGetSetParam>()->SetParam(kParamSelectService, 0), S_OK);
        };
        std::thread other(choose);
        choose();
        other.join();
        ASSERT_EQ(dynamic_cast<CTsSource&>(*graph.filter.Get()).GetPinCount(), 2) << round;
    }
}

}  // namespace
}  // namespace tessel
