// The splitter's saved state, and the choice of a service.
#include <gmock/gmock.h>

#include <cstdio>
#include <functional>

#include "platform/com/MemoryStream.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::ProgrammeBuilder;
using build::Video;

// The filter's saved state, without the header's 24 bytes when asked for.
Bytes Save(CTsSplitter& splitter) {
    const auto stream = MakeObject<CMemoryStream>();
    EXPECT_EQ(splitter.Save(stream.Get(), 1), S_OK);
    return {stream->Bytes().begin(), stream->Bytes().end()};
}

HRESULT Load(CTsSplitter& splitter, const Bytes& bytes) {
    const auto stream = MakeObject<CMemoryStream>();
    ULONG written = 0;
    EXPECT_EQ(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written), S_OK);
    EXPECT_EQ(stream->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
    return splitter.Load(stream.Get());
}

Bytes Number(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 24)};
}

// A graph of one process saves its state, one of another loads it.
TEST(SavedStateDeathTest, PassesBetweenProcesses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = testing::TempDir() + "tessel-saved-state";
    const auto save = [&path] {
        SplitterGraph graph;
        const ULONG pids[] = {0x200, 0x1FF, 0x11};
        ComPtr<IPin> stream;
        graph.demultiplexer->CreateOutputPin(nullptr, u"stream", stream.Put());
        stream.As<IMPEG2PIDMap>()->MapPID(1, pids, MEDIA_ELEMENTARY_STREAM);
        graph.Pin(u"Output1")->MapPID(3, pids, MEDIA_TRANSPORT_PACKET);
        const Bytes state = Save(*graph.splitter.Get());
        std::FILE* const file = std::fopen(path.c_str(), "wb");
        const bool written = std::fwrite(state.data(), 1, state.size(), file) == state.size() && std::fclose(file) == 0;
        std::_Exit(written ? 0 : 1);
    };
    EXPECT_EXIT(save(), testing::ExitedWithCode(0), "");
    Bytes state(4096);
    std::FILE* const file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    state.resize(std::fread(state.data(), 1, state.size(), file));
    std::fclose(file);
    std::remove(path.c_str());
    SplitterGraph graph;
    ASSERT_EQ(Load(*graph.splitter.Get(), state), S_OK);
    EXPECT_EQ(graph.Pin(u"stream")->Map().Entries(), std::vector<ULONG>{0x200});
    EXPECT_EQ(graph.Pin(u"stream")->Kind(), ContentKind::kElementaryStream);
    EXPECT_EQ(graph.Pin(u"Output1")->Map().Entries(), (std::vector<ULONG>{0x11, 0x1FF, 0x200}));
    EXPECT_EQ(graph.Pin(u"PSIOut")->Map().Entries(), std::vector<ULONG>{ALL_TABLES});
}

// A pin that is made for whoever comes next is none of those that have been saved.
TEST(SavedState, KeepsTheNamesOfItsPinsToThem) {
    SplitterGraph saved;
    const ULONG pid = 0x101;
    ComPtr<IPin> second;
    ASSERT_EQ(saved.demultiplexer->CreateOutputPin(nullptr, u"Output2", second.Put()), S_OK);
    ASSERT_EQ(second.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_TRANSPORT_PACKET), S_OK);
    SplitterGraph loaded;
    ASSERT_EQ(Load(*loaded.splitter, Save(*saved.splitter)), S_OK);
    for (const OLECHAR* name : {u"Output1", u"Output2"}) {
        const auto sink = MakeObject<TestSink>();
        ASSERT_EQ(loaded.graph->AddFilter(sink.Get(), nullptr), S_OK);
        ASSERT_EQ(loaded.graph->ConnectDirect(loaded.Pin(name).get(), &sink->In(), nullptr), S_OK);
    }
    EXPECT_TRUE(loaded.Pin(u"Output3"));
    SplitterGraph again;
    ASSERT_EQ(Load(*again.splitter, Save(*loaded.splitter)), S_OK);
    EXPECT_EQ(again.splitter->GetPinCount(), loaded.splitter->GetPinCount());
    EXPECT_EQ(again.Pin(u"Output2")->Map().Entries(), std::vector<ULONG>{pid});
}

TEST(SavedState, IsToBeSavedAfterEveryChange) {
    SplitterGraph graph;
    const ULONG pid = 0x101;
    ComPtr<IPin> pin;
    const std::function<HRESULT()> changes[] = {
        [&] { return graph.demultiplexer->CreateOutputPin(nullptr, u"pin", pin.Put()); },
        [&] { return pin.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM); },
        [&] { return pin.As<IMPEG2PIDMap>()->UnmapPID(1, &pid); },
        [&] { return graph.demultiplexer->DeleteOutputPin(u"pin"); },
    };
    for (size_t i = 0; i < std::size(changes); ++i) {
        Save(*graph.splitter);
        ASSERT_EQ(graph.splitter->IsDirty(), S_FALSE);
        EXPECT_EQ(changes[i](), S_OK);
        EXPECT_EQ(graph.splitter->IsDirty(), S_OK) << i;
    }
}

TEST(SavedState, ComesBackOrIsRefused) {
    SplitterGraph saved;
    const std::u16string longName(49, u'n');
    ComPtr<IPin> handle;
    ASSERT_EQ(saved.demultiplexer->CreateOutputPin(nullptr, longName.c_str(), handle.Put()), S_OK);
    const ULONG pids[] = {0x101, 0x100, ALL_PIDS};
    ASSERT_EQ(saved.Pin(u"Output1")->MapPID(2, pids, MEDIA_TRANSPORT_PACKET), S_OK);
    ASSERT_EQ(saved.Pin(longName.c_str())->MapPID(1, pids, MEDIA_ELEMENTARY_STREAM), S_OK);
    EXPECT_EQ(saved.splitter->IsDirty(), S_OK);
    const Bytes state = Save(*saved.splitter);
    EXPECT_EQ(saved.splitter->IsDirty(), S_FALSE);
    uint64_t most = 0;
    EXPECT_EQ(saved.splitter->GetSizeMax(&most), S_OK);
    EXPECT_EQ(most, 24u + 100 + 12 + 16 + 12);

    SplitterGraph loaded;
    const ULONG other = 0x55;
    ASSERT_EQ(loaded.Pin(u"Output1")->MapPID(1, &other, MEDIA_ELEMENTARY_STREAM), S_OK);
    EXPECT_EQ(Load(*loaded.splitter, state), S_OK);
    EXPECT_EQ(Save(*loaded.splitter), state);
    EXPECT_EQ(loaded.Pin(u"PSIOut")->Map().Entries(), std::vector<ULONG>{ALL_TABLES});
    EXPECT_EQ(loaded.Pin(u"Output1")->Map().Entries(), (std::vector<ULONG>{0x100, 0x101}));
    EXPECT_EQ(loaded.Pin(longName.c_str())->Kind(), ContentKind::kElementaryStream);

    for (size_t size = 1; size < state.size(); ++size)
        EXPECT_TRUE(FAILED(Load(*loaded.splitter, Bytes(state.begin(), state.begin() + static_cast<ptrdiff_t>(size)))))
            << size;
    const Bytes header(state.begin(), state.begin() + 24);
    Bytes six = state;
    six[20] = '6';
    const Bytes name = build::Join({Number(4), {'x', 0, 0, 0}});
    const Bytes unended = build::Join({Number(4), {'y', 0, 'y', 0}});
    struct {
        const char* what;
        Bytes bytes;
        HRESULT result;
    } const cases[] = {
        {"version 6", six, E_FAIL},
        {"eleven pins", build::Join({header, Number(11), state}), E_FAIL},
        {"a long name", build::Join({header, Number(1), Number(102), Bytes(102, 'x'), Number(0), Number(0)}), E_FAIL},
        {"a name without its zero", build::Join({header, Number(1), unended, Number(0), Number(0)}), S_OK},
        {"no such content", build::Join({header, Number(1), name, Number(4), Number(1), Number(0x20)}), E_FAIL},
        {"no such content, no entry", build::Join({header, Number(1), name, Number(4), Number(0)}), S_OK},
        {"two streams", build::Join({header, Number(1), name, Number(2), Number(2), Number(0x20), Number(0x21)}),
         E_FAIL},
        {"more entries than there are", build::Join({header, Number(1), name, Number(1), Number(0xFFFFFFFF)}), E_FAIL},
        {"no pins", build::Join({header, Number(0)}), S_OK},
    };
    for (const auto& [what, bytes, result] : cases)
        EXPECT_EQ(Load(*loaded.splitter, bytes), result) << what;
    EXPECT_TRUE(loaded.Pin(u"yy"));
}

TEST(ServiceSelection, TakesTheBestOfWhatIsListedAndSent) {
    const auto audio = [](uint16_t pid, uint8_t type, build::Descriptors descriptors) {
        build::ElementaryStream stream = Audio(pid, 200, type);
        stream.descriptors = std::move(descriptors);
        return stream;
    };
    const auto german = build::Language("ger", 0);
    const auto comment = build::Language("ger", 3);
    ProgrammeBuilder builder(
        {{.number = 1, .pmtPid = 0x100, .pcrPid = 0x101, .streams = {Video(0x111), audio(0x112, 0x03, {german})}},
         {.number = 2, .pmtPid = 0x200, .pcrPid = 0x201, .streams = {Video(0x211)}},
         // Neither video that an MPEG-2 pin takes nor audio, but packets.
         {.number = 3, .pmtPid = 0x300, .pcrPid = 0x301, .streams = {Video(0x311, 100, 0x1B), audio(0x312, 0x06, {})}},
         {.number = 4,
          .pmtPid = 0x400,
          .pcrPid = 0x401,
          .streams = {Video(0x410), audio(0x417, 0x81, {german}), Video(0x411, 100, 0x1B), Video(0x412, 100, 0x01),
                      audio(0x413, 0x03, {german}), audio(0x414, 0x81, {}), audio(0x415, 0x06, {build::Ac3(), comment}),
                      audio(0x416, 0x81, {comment})}}});
    builder.Tables();
    auto& programmes = builder.programmes();
    // Listed, and not sent.
    programmes[1].streams.clear();
    programmes[3].streams.erase(programmes[3].streams.begin(), programmes[3].streams.begin() + 2);
    builder.Frames(3);
    // Sent, and no longer listed: 0x112.
    programmes[0].pmtVersion = 1;
    programmes[0].streams = {Video(0x111), audio(0x113, 0x03, {comment}), audio(0x114, 0x03, {german})};
    const Bytes stream = builder.Tables().Frames(1).Padding().Take();

    struct Case {
        uint32_t index;
        HRESULT result;
        ULONG video, audio;
    };
    const std::pair<GUID, std::vector<Case>> pins[] = {
        {MEDIASUBTYPE_MPEG2_VIDEO,
         {{0, S_OK, 0x111, 0x114},
          {1, S_OK, 0x412, 0x415},
          {2, S_OK, 0x412, 0x415},
          {3, E_FAIL, 0x412, 0x415},
          {0, S_OK, 0x111, 0x114}}},
        {MEDIASUBTYPE_AVC_VIDEO, {{0, S_OK, 0x1000, 0x114}, {1, S_OK, 0x311, 0x114}, {2, S_OK, 0x411, 0x415}}},
    };
    for (const auto& [subtype, cases] : pins) {
        SplitterGraph graph;
        EXPECT_EQ(graph.splitter->SetParam(kParamSelectService, 0), E_FAIL);
        graph.AddStream(u"v", MEDIATYPE_Video, subtype, 0x1000);
        graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3, 0x1001);
        ASSERT_EQ(graph.Run(), S_OK);
        ASSERT_EQ(graph.source->Push(stream), S_OK);
        ASSERT_TRUE(Eventually([&] { return graph.splitter->PidStatus().IsPresent(build::kNullPid); }));
        ASSERT_EQ(graph.End(), S_OK);
        for (const auto& [index, result, videoPid, audioPid] : cases) {
            EXPECT_EQ(graph.splitter->SetParam(kParamSelectService, index), result);
            EXPECT_EQ(graph.Pin(u"v")->Map().Entries(), std::vector<ULONG>{videoPid}) << index;
            EXPECT_EQ(graph.Pin(u"a")->Map().Entries(), std::vector<ULONG>{audioPid}) << index;
        }
    }
}

}  // namespace
}  // namespace tessel
