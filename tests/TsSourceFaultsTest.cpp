// The file source and files that are damaged, none at all, or changed by others while they are read.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "platform/com/TaskMemory.h"
#include "platform/media/MediaResult.h"
#include "tests/support/SourceFixture.h"

namespace tessel {
namespace {

using build::Bytes;

Bytes From(const Bytes& bytes, size_t offset) {
    return {bytes.begin() + static_cast<ptrdiff_t>(offset), bytes.end()};
}

bool IsBeginning(const Bytes& bytes, const Bytes& of) {
    return bytes.size() <= of.size() && std::equal(bytes.begin(), bytes.end(), of.begin());
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

// A hole that swallows whole groups: what is sought in it begins in front of it.
TEST_F(FileSource, SeeksAroundAHole) {
    Movie movie;
    movie.Frames(100);
    const size_t before = movie.points.size() - 1;
    const size_t from = movie.stream.bytes().size();
    const size_t videoBefore = movie.video.size();
    movie.Frames(50);
    const size_t behind = movie.points.size();
    const size_t to = movie.stream.bytes().size();
    movie.Frames(100).Padding();
    Bytes bytes = movie.stream.bytes();
    std::fill(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(to), uint8_t{0});
    SourceGraph graph;
    ASSERT_EQ(graph.Load(Write(bytes)), S_OK);
    graph.AddStreams();
    EXPECT_EQ(graph.Duration(), movie.Now());
    const auto& points = movie.points;
    const std::pair<REFERENCE_TIME, size_t> seeks[] = {{points[before + 3].time, before},
                                                       {points[behind].time, behind},
                                                       {points[before].time - 1'000'000, before - 1},
                                                       {points[behind].time - 1'000'000, before},
                                                       {points[behind + 2].time + 1'000'000, behind + 2}};
    for (const auto& [time, point] : seeks) {
        SCOPED_TRACE(time);
        ASSERT_EQ(graph.graph->Stop(), S_OK);
        graph.Forget();
        ASSERT_EQ(graph.Seek(time), S_OK);
        // The jump of the clock behind the hole is the end of what begins in front of it.
        graph.Play();
        Bytes video = graph.video->Bytes();
        const Bytes expected = From(movie.video, points[point].video);
        if (point >= behind) {
            EXPECT_TRUE(video == expected);
        } else {
            EXPECT_EQ(graph.AbortResult(), VFW_E_INVALID_FILE_FORMAT);
            // Behind the hole some may have come before the jump was seen.
            video.resize(std::min(video.size(), videoBefore - points[point].video));
            EXPECT_TRUE(IsBeginning(video, expected));
        }
    }
}

// The duration is what the last stamp says it is, unless that is before the beginning. Played, a stamp that is far off
// may pass for a jump of the clock.
TEST_F(FileSource, PlaysAndSeeksWithAWrongLastTimeStamp) {
    for (const int64_t by : {int64_t{36'000} * 90'000, int64_t{90'000}, int64_t{-3} * 90'000, int64_t{-9} * 90'000}) {
        SCOPED_TRACE(by);
        Movie movie;
        movie.Frames(200);
        const REFERENCE_TIME length = movie.Now();
        movie.SetLead(Movie::kLead + by).Frames(10).Padding();
        SourceGraph graph;
        ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
        graph.AddStreams();
        const bool counts = movie.Now() > 0;
        if (!counts)
            movie.points.pop_back();
        EXPECT_EQ(graph.Duration(), counts ? movie.Now() : length);
        for (const REFERENCE_TIME target : {length / 3, length / 2, length - 5'000'000, REFERENCE_TIME{0}}) {
            ASSERT_EQ(graph.graph->Stop(), S_OK);
            graph.Forget();
            ASSERT_EQ(graph.Seek(target), S_OK);
            graph.Play();
            // Behind the last point there is nothing but that.
            const Movie::Point* point = &movie.points.back();
            if (target < point->time)
                for (point = &movie.points[0]; (point + 1)->time <= target;)
                    ++point;
            EXPECT_TRUE(IsBeginning(graph.video->Bytes(), From(movie.video, point->video))) << target;
        }
    }
}

// Sought in, a file that has become another one plays what is there.
TEST_F(FileSource, SeeksInAFileThatOthersChange) {
    Movie movie({.pictureSize = 10'000});
    movie.Frames(300).Padding();
    Movie longer({.pictureSize = 10'000});
    longer.Frames(400).Padding();
    const Bytes& whole = movie.stream.bytes();
    const Movie::Point& middle = movie.points[15];
    struct Case {
        const char* what;
        std::function<void(const fs::path&)> change;
        HRESULT result;
        size_t latest;  // place of the point that it begins at, or of an earlier one
    };
    const Case cases[] = {
        {"grows", [&](const fs::path&) { Write(longer.stream.bytes()); }, S_OK, middle.filePos},
        {"shrinks behind the place", [&](const fs::path& path) { fs::resize_file(path, whole.size() * 3 / 4); }, S_OK,
         middle.filePos},
        {"shrinks before it", [&](const fs::path& path) { fs::resize_file(path, whole.size() / 4); }, S_OK,
         whole.size() / 4},
        {"is emptied", [&](const fs::path& path) { fs::resize_file(path, 0); }, E_FAIL, 0},
        {"is deleted", [](const fs::path& path) { fs::remove(path); }, S_OK, middle.filePos},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path path = Write(whole);
        SourceGraph graph;
        ASSERT_EQ(graph.Load(path), S_OK);
        graph.AddStreams();
        const REFERENCE_TIME duration = graph.Duration();
        c.change(path);
        EXPECT_EQ(graph.Seek(middle.time), c.result);
        EXPECT_EQ(graph.Duration(), duration) << "as it was loaded";
        graph.Play();
        const Bytes video = graph.video->Bytes();
        EXPECT_EQ(video.empty(), c.result != S_OK);
        const auto point = std::find_if(movie.points.rbegin(), movie.points.rend(),
                                        [&c](const Movie::Point& candidate) { return candidate.filePos <= c.latest; });
        if (c.result == S_OK) {
            EXPECT_TRUE(IsBeginning(video, From(longer.video, point->video)));
        }
    }
}

TEST_F(FileSource, TakesTheLongestNameThatIsAllowed) {
    Movie movie;
    movie.Frames(50).Padding();
    for (const size_t length : {259, 260}) {
        fs::path folder = m_folder;
        while (folder.native().size() < 200)
            folder /= "folder";
        fs::create_directories(folder);
        const size_t left = length - folder.native().size() - 1;
        const fs::path path =
            Write(movie.stream.bytes(), (fs::relative(folder, m_folder) / std::string(left, 'n')).c_str());
        ASSERT_EQ(path.native().size(), length);
        SourceGraph graph;
        EXPECT_EQ(graph.Load(path), length == 259 ? S_OK : E_INVALIDARG);
    }
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
        EXPECT_LE(graph.video->Bytes().size(), video) << "nothing that lies behind";
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

// Files of which some bytes cannot be read.
class UnreadableSystem final : public CFileSystem {
public:
    class File final : public CFile {
    public:
        File(std::unique_ptr<CFile> file, uint64_t from, uint64_t end)
            : m_file(std::move(file)), m_from(from), m_end(end) {}
        Identity GetIdentity() const override { return m_file->GetIdentity(); }
        uint32_t GetDriveType() const override { return m_file->GetDriveType(); }
        int64_t GetSize() const override { return m_file->GetSize(); }
        int64_t ReadAt(uint64_t offset, std::span<uint8_t> buffer) const override {
            if (offset < m_from)
                buffer = buffer.first(std::min<uint64_t>(buffer.size(), m_from - offset));
            return offset >= m_from && offset < m_end ? -1 : m_file->ReadAt(offset, buffer);
        }

    private:
        const std::unique_ptr<CFile> m_file;
        const uint64_t m_from;
        const uint64_t m_end;
    };
    UnreadableSystem(uint64_t from, uint64_t end) : m_from(from), m_end(end) {}
    std::unique_ptr<CFile> Open(const char* path, uint32_t access) const override {
        return std::make_unique<File>(CFileSystem::Open(path, access), m_from, m_end);
    }

private:
    const uint64_t m_from;
    const uint64_t m_end;
};

TEST_F(FileSource, EndsWithTheReadersResultWhereItCannotRead) {
    Movie movie;
    movie.Frames(200);
    const size_t audio = movie.audio.size();
    const auto bad = static_cast<uint64_t>(movie.stream.bytes().size()) + 100;
    movie.Frames(200).Padding();
    const UnreadableSystem system(bad, bad + 512);
    SourceGraph graph;
    auto& source = static_cast<CTsSource&>(*graph.filter);
    source.SetFileSystem(system);
    ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
    graph.AddStreams();
    ASSERT_GT(graph.Duration(), movie.points.back().time) << "its end can be read";
    graph.Play();
    EXPECT_EQ(graph.AbortResult(), E_FAIL);
    EXPECT_EQ(source.ReadResult(), E_FAIL);
    EXPECT_EQ(source.ReadPosition(), static_cast<int64_t>(bad));
    EXPECT_EQ(graph.audio->Bytes(), Bytes(movie.audio.begin(), movie.audio.begin() + static_cast<ptrdiff_t>(audio)));
    // Behind it the file plays.
    ASSERT_EQ(graph.graph->Stop(), S_OK);
    graph.Forget();
    const Movie::Point& behind = movie.points[25];
    ASSERT_EQ(graph.Seek(behind.time), S_OK);
    graph.Play();
    EXPECT_EQ(graph.AbortResult(), S_OK);
    EXPECT_EQ(graph.video->Bytes(), From(movie.video, behind.video));
}

// A programme whose clock is of no use keeps no other from being played and sought in.
TEST_F(FileSource, SeeksInTheProgrammesThatHaveAClock) {
    constexpr uint16_t kOtherPcrPid = 0x201;
    struct Case {
        const char* what;
        uint16_t pcrPid;
        uint8_t scrambling;
        size_t jump;  // the frame that it comes at
        bool seekable;
    };
    const size_t never = SIZE_MAX;
    const Case cases[] = {{"names none", kNullPid, 0, never, false},
                          {"is silent", 0x202, 0, never, false},
                          {"is scrambled", kOtherPcrPid, 2, never, false},
                          {"jumps while the file is scanned", kOtherPcrPid, 0, 3, false},
                          {"jumps later", kOtherPcrPid, 0, 200, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Movie movie({.otherPcrPid = c.pcrPid});
        for (size_t frame = 0; frame < 300; ++frame) {
            const int64_t time = static_cast<int64_t>(frame) * Movie::kFrame + (frame < c.jump ? 0 : 90 * 90'000);
            movie.stream.Null();
            if (frame % 50 == 1)
                movie.Tables(1);
            movie.Frames(1);
            movie.stream.Pcr(kOtherPcrPid, time * 300, {.scrambling = c.scrambling});
            movie.stream.Pes(kOtherPid, 0xC0, Bytes(576, 2), {.pts = time + Movie::kLead});
        }
        movie.Padding();
        SourceGraph graph;
        ASSERT_EQ(graph.Load(Write(movie.stream.bytes())), S_OK);
        ComPtr<IPin> other;
        AM_MEDIA_TYPE audio = MakeMediaType(MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        const ULONG pid = kOtherPid;
        ASSERT_EQ(graph.filter.As<IMpeg2Demultiplexer>()->CreateOutputPin(&audio, u"other", other.Put()), S_OK);
        ASSERT_EQ(other.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
        EXPECT_EQ(graph.Duration() != 0, c.seekable);
        graph.AddStreams();
        EXPECT_EQ(graph.Duration(), movie.Now());
        for (const Movie::Point& point : {movie.points[0], movie.points[12]}) {
            ASSERT_EQ(graph.Seek(point.time), S_OK);
            graph.Play();
            EXPECT_EQ(graph.video->Bytes(), From(movie.video, point.video));
            EXPECT_EQ(graph.audio->Bytes(), From(movie.audio, point.audio));
            ASSERT_EQ(graph.graph->Stop(), S_OK);
            graph.Forget();
        }
        EXPECT_EQ(graph.AbortResult(), S_OK);
        if (!c.seekable)
            continue;
        graph.Connect(other.Get(), MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        ASSERT_EQ(graph.Seek(0), S_OK);
        graph.Play();
        EXPECT_EQ(graph.AbortResult(), VFW_E_INVALID_FILE_FORMAT) << "its clock counts once it is played";
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

}  // namespace
}  // namespace tessel
