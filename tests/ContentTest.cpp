// The contents of output pins: what they keep, what they drop, when they send, and with what times.
#include <gmock/gmock.h>

#include <algorithm>
#include <thread>

#include "core/StartSync.h"
#include "output/PesHeader.h"
#include "output/SampleClock.h"
#include "tests/support/FilterFixture.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::kPacketSize;
using build::ProgrammeBuilder;
using build::StreamBuilder;
using build::Video;
using testing::ElementsAre;

constexpr uint16_t kPid = 0x111;
constexpr uint16_t kOtherPid = 0x112;

build::ElementaryStream Subtitles(uint16_t pid, size_t pesSize) {
    return {.pid = pid,
            .streamType = 0x06,
            .streamId = 0xBD,
            .pesSize = pesSize,
            .descriptors = {build::Subtitling({{"eng", 0x10, 1, 1}})}};
}

TEST(PesHeader, StartAndTimes) {
    constexpr int64_t kPts = 0x1'2345'6789;
    constexpr int64_t kDts = 0x1'2345'0000;
    const auto pes = [](uint8_t id, const build::PesOptions& options) {
        return build::PesPacket(id, Bytes(40, 0x55), options);
    };
    const Bytes both = pes(0xE0, {.pts = kPts, .dts = kDts});
    const Bytes one = pes(0xC0, {.pts = kPts});
    struct {
        const char* what;
        Bytes bytes;
        size_t length;
        int32_t size;
        int64_t timestamp;
    } const cases[] = {{"PTS", one, 54, 14, kPts},
                       {"PTS and DTS", both, 59, 19, kDts},
                       {"no time", pes(0xE0, {}), 49, 9, kNoTimestamp},
                       {"stuffing", pes(0xBD, {.pts = kPts, .headerStuffing = 20}), 60, 34, kPts},
                       {"DTS cut off", both, 18, 19, kPts},
                       {"PTS cut off", one, 13, 14, kNoTimestamp}};
    for (const auto& [what, bytes, length, size, timestamp] : cases) {
        ASSERT_GE(bytes.size(), length) << what;
        const PesHeader header = ParsePesHeader(std::span(bytes).first(length));
        EXPECT_EQ(header.size, size) << what;
        EXPECT_EQ(header.timestamp, timestamp) << what;
    }
    for (const uint32_t id : {0xC0, 0xDF, 0xE0, 0xEF, 0xBA, 0xBB, 0xBD, 0xBF, 0xFD, 0xBC, 0xBE, 0xF0, 0xFF, 0x00}) {
        const bool known =
            (id >= 0xC0 && id <= 0xEF) || id == 0xBA || id == 0xBB || id == 0xBD || id == 0xBF || id == 0xFD;
        Bytes bytes(13);
        bytes[2] = 1;
        bytes[3] = static_cast<uint8_t>(id);
        EXPECT_EQ(IsPesStart(bytes), known) << id;
        EXPECT_EQ(ParsePesHeader(bytes).size, id == 0xBF ? 6 : 9) << id;
        std::reverse(bytes.begin(), bytes.begin() + 4);
        EXPECT_EQ(IsPesStart(bytes), known) << id;
    }
}

TEST(SampleClock, UnwrapsAndConverts) {
    constexpr int64_t kWrap = int64_t{1} << 33;
    constexpr int64_t kThird = kWrap / 3;
    struct {
        const char* what;
        int64_t pts;
        REFERENCE_TIME origin;
        std::vector<int64_t> raw;
        std::vector<REFERENCE_TIME> times;
    } const cases[] = {
        {"truncated to 100 ns", 0, 5, {0, 1, 2, 9}, {5, 116, 227, 1'005}},
        {"over the wrap", kWrap - 16, 0, {kWrap - 16, 16}, {0, 3'555}},
        {"late, from before the wrap", kWrap - 90, 0, {kWrap - 90, 90, kWrap - 45, 180}, {0, 20'000, 5'000, 30'000}},
        {"before the origin", 900, 0, {0}, {-100'000}},
        {"two wraps",
         kWrap - 9,
         0,
         {kWrap - 9, 0, kThird, 2 * kThird, 0},
         {0, 1'000, (kThird + 9) * 1000 / 9, (2 * kThird + 9) * 1000 / 9, (kWrap + 9) * 1000 / 9}},
        {"unknown", 0, kUnknown, {90'000}, {kUnknown}},
    };
    for (const auto& [what, pts, origin, raw, times] : cases) {
        CSampleClock clock;
        clock.Start(pts, origin);
        for (size_t i = 0; i < raw.size(); ++i)
            EXPECT_EQ(clock.TimeOf(raw[i], 0), times[i]) << what << ", " << i;
    }
    CSampleClock clock;
    clock.Start(0, 0);
    EXPECT_EQ(clock.TimeOf(90'000, 2'000'000), 12'000'000);
    clock.Follow({.pcrOrigin = 300 * 90'000, .timeOrigin = 50});
    EXPECT_EQ(clock.TimeOf(90'000, 0), 50);
    EXPECT_EQ(clock.LastRawTimestamp(), 90'000);
}

// A content that a test fills by itself: its pin is not connected, so nothing takes data out but the test.
struct LooseContent {
    LooseContent(size_t row, std::vector<ULONG> pids, StreamingMode mode = StreamingMode::kRecording)
        : filter(MakeFilter(mode)) {
        AM_MEDIA_TYPE type = MakeMediaType(kOutputMediaTypes[row].majortype, kOutputMediaTypes[row].subtype);
        ComPtr<IPin> handle;
        EXPECT_EQ(filter->CreateOutputPin(&type, u"pin", handle.Put()), S_OK);
        pin = std::dynamic_pointer_cast<CTsOutputPin>(filter->GetPin(0));
        const auto kind = static_cast<MEDIA_SAMPLE_CONTENT>(static_cast<int>(pin->Kind()) - 1);
        EXPECT_EQ(pin->MapPID(static_cast<ULONG>(pids.size()), pids.data(), kind), S_OK);
        content = pin->Content();
        EXPECT_EQ(content->Active(), S_OK);
    }
    // Tables that list the stream, so that it streams.
    void Bind(uint8_t streamType, uint8_t version = 0, uint16_t pcrPid = 0x101) {
        build::Programme& programme = tables.programmes()[0];
        programme.pcrPid = pcrPid;
        programme.pmtVersion = version;
        programme.streams = {{.pid = kPid, .streamType = streamType}};
        EXPECT_EQ(filter->Feed(tables.Tables().Padding().Take()), S_OK);
    }
    // Every packet; the first result that is not S_OK.
    HRESULT Add(const Bytes& packets) {
        for (size_t at = 0; at < packets.size(); at += kPacketSize) {
            const uint8_t* packet = packets.data() + at;
            const TsHeader header = DecodeTsHeader(packet);
            const auto adaptation =
                header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{};
            if (const HRESULT result = content->AddPacket(packet, header, adaptation); result != S_OK)
                return result;
        }
        return S_OK;
    }
    HRESULT AddPes(int64_t pts, size_t size, uint8_t id = 0xE0) {
        stream.Pes(kPid, id, Bytes(size, 0x55), {.pts = pts, .unbounded = id == 0xE0});
        return Add(std::exchange(stream.bytes(), {}));
    }
    ~LooseContent() { content->Inactive(); }

    ComPtr<BareFilter> filter;
    std::shared_ptr<CTsOutputPin> pin;
    std::shared_ptr<CStreamExecutor> content;
    StreamBuilder stream;
    ProgrammeBuilder tables{{{}}};
};

TEST(ElementaryStream, HoldsBackIncompletePicturesAndShortAudio) {
    LooseContent video(2, {kPid});
    video.Bind(0x02);
    const auto pending = [](LooseContent& at) { return at.content->GetPendingBytes(false, false); };
    EXPECT_EQ(video.AddPes(14'999, 1'000), S_OK);
    EXPECT_EQ(pending(video), 0);
    EXPECT_EQ(video.content->GetPendingBytes(true, false), 1'000);
    EXPECT_EQ(video.content->GetPendingBytes(false, true), 1'000);
    EXPECT_EQ(video.AddPes(20'000, 10), S_OK);
    EXPECT_EQ(pending(video), 1'010);
    LooseContent overdue(2, {kPid});
    overdue.Bind(0x02);
    EXPECT_EQ(overdue.AddPes(15'000, 1'000), S_OK);
    EXPECT_EQ(pending(overdue), 1'000);
    LooseContent audio(7, {kPid});
    audio.Bind(0x03);
    EXPECT_EQ(audio.AddPes(0, 299, 0xC0), S_OK);
    EXPECT_EQ(pending(audio), 0);
    EXPECT_EQ(audio.content->GetPendingBytes(true, false), 299);
    EXPECT_EQ(audio.AddPes(0, 1, 0xC0), S_OK);
    EXPECT_EQ(pending(audio), 300);
}

TEST(ElementaryStream, MarksWhatCarriesATime) {
    LooseContent at(2, {kPid});
    EXPECT_EQ(at.content->GetFirstTimestamp(), kUnknown);
    // Twelve bytes are too few for a start: they are data.
    at.stream.Packet(kPid, Bytes(12, 0x55), {.unitStart = true});
    EXPECT_EQ(at.Add(std::exchange(at.stream.bytes(), {})), S_OK);
    EXPECT_EQ(at.content->QueuedBytes(), 12);
    EXPECT_EQ(at.content->GetFirstTimestamp(), kUnknown);
    // However many headers without payload come, only the last one's time counts, and only that is kept.
    for (int64_t pts = 1; pts <= 10; ++pts)
        EXPECT_EQ(at.AddPes(pts, 0), S_OK);
    EXPECT_EQ(at.content->GetFirstTimestamp(), 10);
    EXPECT_EQ(at.AddPes(77, 10), S_OK);
    EXPECT_EQ(at.content->GetFirstTimestamp(), 77);
    EXPECT_EQ(at.AddPes(78, 10), S_OK);
    EXPECT_EQ(at.content->GetFirstTimestamp(), 77);
}

// ISO/IEC 13818-1, 2.4.3.7: up to 255 bytes of header data, and a packet holds 184.
TEST(ElementaryStream, SkipsAHeaderLongerThanAPacket) {
    for (const bool cut : {false, true}) {
        LooseContent at(2, {kPid});
        at.stream.Pes(kPid, 0xE0, Bytes(100, 0x11), {.pts = 5, .unbounded = true, .headerStuffing = 250});
        if (cut)
            at.stream.bytes().resize(188);
        EXPECT_EQ(at.Add(std::exchange(at.stream.bytes(), {})), S_OK);
        EXPECT_EQ(at.content->QueuedBytes(), cut ? 0 : 100);
        EXPECT_EQ(at.content->GetFirstTimestamp(), 5);
        // The next one begins whatever has come of the last one's header.
        EXPECT_EQ(at.AddPes(7, 10), S_OK);
        EXPECT_EQ(at.content->QueuedBytes(), cut ? 10 : 110);
    }
}

TEST(ElementaryStream, GrowsUntilTheParserWaitsOrTheOldestGoes) {
    LooseContent streaming(2, {kPid});
    streaming.Bind(0x02);
    HRESULT result = S_OK;
    for (int64_t i = 0; result == S_OK && i < 200; ++i)
        result = streaming.AddPes(i * 3'600, 50'000);
    EXPECT_EQ(result, E_OUTOFMEMORY);
    const int64_t full = streaming.content->QueuedBytes();
    EXPECT_GT(full, 3'359'232 - 184);
    EXPECT_LE(full, 3'359'232);
    EXPECT_EQ(streaming.content->DropData(188), S_OK);
    EXPECT_EQ(streaming.content->QueuedBytes(), full - full / 5);
    EXPECT_EQ(streaming.content->DropData(INT32_MAX), S_OK);
    EXPECT_EQ(streaming.content->QueuedBytes(), 0);
    LooseContent waiting(2, {kPid});
    for (int64_t i = 0; i < 400; ++i)
        ASSERT_EQ(waiting.AddPes(i * 3'600, 50'000), S_OK);
    EXPECT_LE(waiting.content->QueuedBytes(), 11'337'408);
    EXPECT_GE(waiting.content->QueuedBytes(), 11'337'408 - 2'359'296 - 184);
}

TEST(ElementaryStream, BindsByTheProgramMapTable) {
    LooseContent at(2, {kPid});
    const auto state = [&at] { return std::pair(at.content->IsWaitingForProgram(), at.content->GetPcrPid()); };
    EXPECT_EQ(state(), std::pair(true, kProgramUnknown));
    at.Bind(0x02);
    EXPECT_EQ(state(), std::pair(false, 0x101));
    EXPECT_EQ(at.AddPes(0, 100), S_OK);
    at.Bind(0x02, 1, 0x102);
    EXPECT_EQ(state(), std::pair(false, 0x102));
    EXPECT_EQ(at.content->QueuedBytes(), 100);
    EXPECT_FALSE(at.pin->HasRuntimeError());
    // Another type than the one bound cannot be had, and what is there is of no use.
    at.Bind(0x03, 2);
    EXPECT_TRUE(at.pin->HasRuntimeError());
    EXPECT_EQ(at.content->QueuedBytes(), 0);
    // A reset forgets the program.
    at.content->ResetStreamStatus();
    EXPECT_EQ(state(), std::pair(true, kProgramUnknown));
    LooseContent none(2, {kPid});
    none.Bind(0x02, 0, 0x1FFF);
    EXPECT_TRUE(none.pin->HasRuntimeError());
    EXPECT_EQ(none.content->GetPcrPid(), 0x1FFF);
}

TEST(TransportStream, SendsWhatIsWorthAWakeUp) {
    std::vector<ULONG> pids(20);
    for (size_t i = 0; i < pids.size(); ++i)
        pids[i] = static_cast<ULONG>(kPid + i);
    struct {
        std::vector<ULONG> pids;
        int32_t floor;
    } const cases[] = {{{kPid}, 1'800}, {{kPid, kOtherPid}, 3'600}, {pids, 36'000}, {{ALL_PIDS, kPid}, 19'800}};
    for (const auto& [mapped, floor] : cases) {
        LooseContent at(0, mapped);
        StreamBuilder packets;
        while (static_cast<int32_t>(packets.bytes().size()) < floor)
            packets.Null();
        const Bytes fewer(packets.bytes().begin(), packets.bytes().end() - kPacketSize);
        EXPECT_EQ(at.Add(fewer), S_OK);
        EXPECT_EQ(at.content->GetPendingBytes(false, false), 0) << floor;
        EXPECT_EQ(at.content->GetPendingBytes(true, false), static_cast<int32_t>(fewer.size()));
        EXPECT_EQ(at.Add(StreamBuilder().Null().bytes()), S_OK);
        EXPECT_EQ(at.content->GetPendingBytes(false, false), static_cast<int32_t>(packets.bytes().size()));
    }
    // More PIDs than the buffer is worth: full is enough.
    for (ULONG pid = 0; pid < 3'000; ++pid)
        pids.push_back(pid);
    LooseContent many(0, pids);
    const Bytes packet = StreamBuilder().Null().bytes();
    HRESULT result = S_OK;
    while (result == S_OK)
        result = many.Add(packet);
    EXPECT_EQ(result, E_OUTOFMEMORY);
    EXPECT_EQ(many.content->QueuedBytes(), 0x300000 / 188 * 188);
    EXPECT_EQ(many.content->GetPendingBytes(false, false), 0x300000 / 188 * 188);
    EXPECT_EQ(many.content->DropData(188), E_FAIL);
    many.content->Inactive();
    EXPECT_EQ(many.Add(packet), E_UNEXPECTED);
}

enum class Fault { kTwice, kLost, kBrokenStart };

struct Damage {
    const char* what;
    MediaClass media;
    Fault fault;
    std::vector<size_t> lostPes;          // whole, counted from 0
    std::pair<size_t, size_t> lostBytes;  // of the damaged one, from and to
    bool discontinuity;
};

class Damages : public testing::TestWithParam<Damage> {};

// PES number 40 of 60 is damaged: its fourth packet, or its start.
TEST_P(Damages, CostNoMoreThanTheyMust) {
    constexpr size_t kPes = 40;
    constexpr size_t kSize = 2'000;
    const Damage& damage = GetParam();
    const bool isVideo = damage.media == MediaClass::kVideo;
    const bool isAudio = damage.media == MediaClass::kAudio;
    const build::ElementaryStream damaged = isVideo   ? Video(kPid, kSize)
                                            : isAudio ? Audio(kPid, kSize)
                                                      : Subtitles(kPid, kSize);
    // Something else for the start to wait for: it needs a time stamp and 64 KiB.
    ProgrammeBuilder builder({{.streams = {damaged, Audio(kOtherPid)}}});
    SplitterGraph graph;
    TestSink& sink = isVideo   ? graph.AddStream(u"s", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid)
                     : isAudio ? graph.AddStream(u"s", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kPid)
                               : graph.AddStream(u"s", MEDIATYPE_Stream, MEDIASUBTYPE_DVB_SUBTITLE, kPid);
    graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
    ASSERT_EQ(graph.Run(), S_OK);

    const Bytes sent = builder.Tables().Frames(60).Padding().Take();
    Bytes stream;
    size_t starts = 0;
    size_t inPes = 0;
    for (size_t at = 0; at < sent.size(); at += kPacketSize) {
        Bytes packet(sent.begin() + static_cast<ptrdiff_t>(at),
                     sent.begin() + static_cast<ptrdiff_t>(at + kPacketSize));
        const TsHeader header = DecodeTsHeader(packet.data());
        bool hit = false;
        if (header.Pid() == kPid && header.HasPayload()) {
            inPes = header.PayloadUnitStartIndicator() ? 0 : inPes + 1;
            starts += inPes == 0;
            hit = starts == kPes + 1 && inPes == (damage.fault == Fault::kBrokenStart ? 0 : 3);
        }
        if (hit && damage.fault == Fault::kLost)
            continue;
        if (hit && damage.fault == Fault::kBrokenStart)
            packet[6] = 0x77;  // in the packet_start_code_prefix
        stream.insert(stream.end(), packet.begin(), packet.end());
        if (hit && damage.fault == Fault::kTwice)
            stream.insert(stream.end(), packet.begin(), packet.end());
    }
    ASSERT_EQ(graph.source->Push(stream), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());

    const Bytes& payload = builder.Payload(kPid);
    Bytes expected;
    for (size_t pes = 0; pes < 60; ++pes) {
        if (std::count(damage.lostPes.begin(), damage.lostPes.end(), pes) != 0)
            continue;
        const auto [from, to] = pes == kPes ? damage.lostBytes : std::pair<size_t, size_t>();
        const uint8_t* bytes = payload.data() + pes * kSize;
        expected.insert(expected.end(), bytes, bytes + from);
        expected.insert(expected.end(), bytes + to, bytes + kSize);
    }
    EXPECT_EQ(sink.Bytes().size(), expected.size());
    EXPECT_TRUE(sink.Bytes() == expected);
    std::vector<size_t> discontinuities;
    size_t position = 0;
    for (const ReceivedSample& sample : sink.Samples()) {
        if (sample.discontinuity)
            discontinuities.push_back(position);
        position += sample.bytes.size();
    }
    const std::vector<size_t> at = {0, kPes * kSize + damage.lostBytes.first};
    EXPECT_EQ(discontinuities, damage.discontinuity ? at : std::vector<size_t>{0});
    // The wrong time would be worse than none.
    const size_t times = damage.fault == Fault::kBrokenStart && !isVideo ? 59 : 60 - damage.lostPes.size();
    EXPECT_EQ(sink.Times().size(), times);
}

// A first packet holds 170 bytes behind its PES header, the others 184.
INSTANTIATE_TEST_SUITE_P(
    All, Damages,
    testing::Values(Damage{"VideoTwice", MediaClass::kVideo, Fault::kTwice, {}, {}, false},
                    Damage{"VideoLost", MediaClass::kVideo, Fault::kLost, {40}, {}, false},
                    Damage{"VideoStart", MediaClass::kVideo, Fault::kBrokenStart, {39, 40}, {}, false},
                    Damage{"AudioTwice", MediaClass::kAudio, Fault::kTwice, {}, {}, false},
                    Damage{"AudioLost", MediaClass::kAudio, Fault::kLost, {}, {538, 722}, false},
                    Damage{"AudioStart", MediaClass::kAudio, Fault::kBrokenStart, {}, {0, 170}, false},
                    Damage{"SubtitleTwice", MediaClass::kSubtitle, Fault::kTwice, {}, {}, false},
                    Damage{"SubtitleLost", MediaClass::kSubtitle, Fault::kLost, {}, {538, 722}, true},
                    Damage{"SubtitleStart", MediaClass::kSubtitle, Fault::kBrokenStart, {}, {0, 170}, true}),
    [](const auto& damage) { return std::string(damage.param.what); });

TEST(StartSync, TheFirstAudioIsTheStartOfAll) {
    struct {
        const char* what;
        std::vector<int64_t> offsets;  // of video and, when there is one, audio
        std::vector<REFERENCE_TIME> video;
    } const cases[] = {{"video alone", {0}, {0, 400'000, 800'000, 1'200'000}},
                       {"audio later", {0, 10'000}, {-1'111'111, -711'111, -311'111, 88'888}},
                       {"audio earlier", {9'000, 0}, {1'000'000, 1'400'000, 1'800'000, 2'200'000}}};
    for (const auto& [what, offsets, expected] : cases) {
        SCOPED_TRACE(what);
        SplitterGraph graph;
        TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        build::Programme programme{.streams = {Video(kPid)}};
        programme.streams[0].ptsOffset = offsets[0];
        TestSink* audio = nullptr;
        if (offsets.size() > 1) {
            programme.streams.push_back(Audio(kOtherPid));
            programme.streams[1].ptsOffset = offsets[1];
            audio = &graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
        }
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({programme});
        // Audio before the first time stamp of a start is not delivered.
        builder.Tables().stream().Packet(kOtherPid, Bytes(184, 0xAA));
        ASSERT_EQ(graph.source->Push(builder.Frames(30).Padding().Take()), S_OK);
        ASSERT_EQ(graph.End(), S_OK);
        ASSERT_TRUE(video.WaitForEnd());
        EXPECT_TRUE(video.Bytes() == builder.Payload(kPid));
        const auto samples = video.Samples();
        ASSERT_EQ(samples.size(), 30u);
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(samples[i].time, expected[i]);
            EXPECT_EQ(samples[i].preroll, expected[i] < 0);
            EXPECT_TRUE(samples[i].syncPoint && !samples[i].mediaTime);
        }
        if (audio != nullptr) {
            ASSERT_TRUE(audio->WaitForEnd());
            EXPECT_TRUE(audio->Bytes() == builder.Payload(kOtherPid));
            EXPECT_EQ(audio->Times()[0], 0);
        }
    }
}

// In a file the program of a mapped stream is known without a connection.
TEST(StartSync, WaitsForNoStreamThatIsNotPlayed) {
    LooseContent donor(2, {kPid});
    donor.tables.programmes()[0].streams = {Video(kPid), Audio(kOtherPid)};
    donor.filter->Feed(donor.tables.Tables().Padding().Take());
    ComPtr<IDvbTable> table;
    ASSERT_EQ(donor.filter->GetTable(0x02, 1, table.Put()), S_OK);
    const auto pmt = table.As<IDvbProgramMapTable>();

    LooseContent played(2, {kPid}, StreamingMode::kFile);
    EXPECT_EQ(played.content->SetProgram(1, pmt.Get(), played.content->Epoch()), S_OK);
    ComPtr<IPin> handle;
    AM_MEDIA_TYPE type = MakeMediaType(MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
    ASSERT_EQ(played.filter->CreateOutputPin(&type, u"other", handle.Put()), S_OK);
    const auto other = std::dynamic_pointer_cast<CTsOutputPin>(played.filter->GetPin(1));
    const ULONG pid = kOtherPid;
    ASSERT_EQ(other->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
    ASSERT_EQ(other->Content()->Active(), S_OK);
    EXPECT_EQ(other->Content()->SetProgram(1, pmt.Get(), other->Content()->Epoch()), S_OK);
    const int32_t pcrPid = played.pin->GetPcrPid();
    ASSERT_GE(pcrPid, 0);
    EXPECT_EQ(played.AddPes(5, 70'000), S_OK);
    StreamBuilder pcr;
    played.filter->Feed(pcr.Pcr(static_cast<uint16_t>(pcrPid), 0).Null().Null().bytes());
    SyncOrigin origin{};
    const std::vector<OutputPinPtr> pins = {played.pin, other};
    EXPECT_FALSE(StartClock(played.filter->Clocks(), pcrPid, pins, {}, &origin)) << "the other stream plays";
    other->Content()->Inactive();
    EXPECT_EQ(other->GetPcrPid(), pcrPid);
    EXPECT_TRUE(StartClock(played.filter->Clocks(), pcrPid, pins, {}, &origin));
    EXPECT_EQ(origin.pts, 5);
}

// Holds a sink's deliveries until the test opens it.
class Gate {
public:
    explicit Gate(TestSink& sink) {
        sink.OnSample([this](IMediaSample& sample) {
            if (!m_reached.IsSet())
                m_length = sample.GetActualDataLength();
            m_reached.Set();
            EXPECT_TRUE(m_open.Wait(kTestWait)) << "waited for the gate";
            return S_OK;
        });
    }
    ~Gate() { Open(); }
    bool WaitUntilReached() { return m_reached.Wait(kTestWait); }
    void Open() { m_open.Set(); }
    // Bytes of the first sample that it held.
    int32_t Length() const { return m_length; }

private:
    std::atomic<int32_t> m_length{0};
    CEvent m_reached{EventReset::kManual};
    CEvent m_open{EventReset::kManual};
};

TEST(BackPressure, ARecordingWaitsForAStalledReceiver) {
    SplitterGraph graph(StreamingMode::kRecording);
    TestSink& sink =
        graph.Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {ALL_PIDS}, MEDIA_TRANSPORT_PACKET);
    Gate gate(sink);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid, 100'000)}}});
    const Bytes stream = builder.Tables().Frames(80).Take();
    std::thread pusher([&] {
        EXPECT_EQ(graph.source->Push(stream), S_OK);
        EXPECT_EQ(graph.End(), S_OK);
    });
    const auto content = graph.Pin(u"t")->Content();
    EXPECT_TRUE(Eventually([&] { return content->QueuedBytes() > 0x300000 - 188; })) << "a full buffer";
    gate.Open();
    pusher.join();
    ASSERT_TRUE(sink.WaitForEnd());
    const Bytes received = sink.Bytes();
    // The last packet has no sync byte behind it.
    EXPECT_EQ(received.size(), stream.size() - kPacketSize);
    EXPECT_TRUE(std::equal(received.begin(), received.end(), stream.begin()));
    for (const ReceivedSample& sample : sink.Samples())
        EXPECT_TRUE(sample.bytes.size() % kPacketSize == 0 && sample.bytes.size() <= 75'200 && !sample.time);
}

TEST(BackPressure, LiveDropsForAStalledReceiver) {
    for (const bool packets : {true, false}) {
        SCOPED_TRACE(packets ? "packets" : "video");
        SplitterGraph graph(StreamingMode::kLive);
        TestSink& sink = packets ? graph.Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {ALL_PIDS},
                                             MEDIA_TRANSPORT_PACKET)
                                 : graph.AddStream(u"t", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
        Gate gate(sink);
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid, 130'000)}}});
        Bytes stream = builder.Tables().Frames(5).Take();
        ASSERT_EQ(graph.source->Push(stream), S_OK);
        ASSERT_TRUE(gate.WaitUntilReached());
        const Bytes rest = builder.Frames(55).Padding().Take();
        stream.insert(stream.end(), rest.begin(), rest.end());
        ASSERT_EQ(graph.source->Push(rest), S_OK);
        ASSERT_EQ(graph.End(), S_OK);  // has all parsed, and waits for nobody
        gate.Open();
        ASSERT_TRUE(sink.WaitForEnd());
        const Bytes received = sink.Bytes();
        const Bytes& sent = packets ? stream : builder.Payload(kPid);
        ASSERT_LT(received.size(), sent.size());
        EXPECT_GT(received.size(), 2'000'000u);
        const auto samples = sink.Samples();
        const auto discontinuities =
            std::count_if(samples.begin(), samples.end(), [](const auto& sample) { return sample.discontinuity; });
        if (packets) {
            EXPECT_TRUE(std::equal(received.begin(), received.end(), sent.begin()));
            EXPECT_EQ(discontinuities, 1);
        } else {
            EXPECT_TRUE(std::equal(received.end() - 130'000, received.end(), sent.end() - 130'000));
            EXPECT_GE(discontinuities, 2);
        }
    }
}

TEST(PsiStream, TwentySectionsWaitAndTheNextOneIsUpToTheMode) {
    constexpr uint16_t kSectionPid = 0x12;
    for (const StreamingMode mode : {StreamingMode::kRecording, StreamingMode::kLive}) {
        SplitterGraph graph(mode);
        TestSink& sink =
            graph.Add(u"p", MEDIATYPE_MPEG2_SECTIONS, MEDIASUBTYPE_SECTIONS_WITH_PID, {kSectionPid}, MEDIA_MPEG2_PSI);
        std::mutex mutex;
        std::vector<ComPtr<IMediaSample>> held;
        bool holds = true;
        sink.OnSample([&](IMediaSample& sample) {
            const std::lock_guard lock(mutex);
            if (holds)
                held.emplace_back(&sample);
            return S_OK;
        });
        ASSERT_EQ(graph.Run(), S_OK);
        ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
        builder.Tables();
        std::vector<Bytes> sections;
        for (uint8_t i = 0; i < 25; ++i)
            sections.push_back(build::LongSection(0x4E, i, Bytes(1'012, i)));
        builder.stream().Sections(kSectionPid, sections);
        // One that no buffer has room for, with its PID in front of it.
        builder.stream().Section(kSectionPid, build::LongSection(0x4E, 99, Bytes(4'086)));
        builder.stream().Section(kSectionPid, build::ShortSection(0xFE, {}));
        const Bytes stream = builder.Padding().Take();
        std::thread pusher([&] {
            EXPECT_EQ(graph.source->Push(stream), S_OK);
            EXPECT_EQ(graph.End(), S_OK);
        });
        EXPECT_TRUE(sink.WaitForSamples(20));
        if (mode == StreamingMode::kLive)
            pusher.join();
        {
            const std::lock_guard lock(mutex);
            EXPECT_EQ(held.size(), 20u);
            holds = false;
            held.clear();
        }
        if (pusher.joinable())
            pusher.join();
        ASSERT_TRUE(sink.WaitForEnd());
        const auto samples = sink.Samples();
        const size_t expected = mode == StreamingMode::kLive ? 20 : 26;
        ASSERT_EQ(samples.size(), expected);
        for (size_t i = 0; i < std::min<size_t>(expected, 25); ++i) {
            ASSERT_EQ(samples[i].bytes.size(), 1'026u);
            EXPECT_EQ(samples[i].bytes[0] << 8 | samples[i].bytes[1], kSectionPid);
            EXPECT_TRUE(std::equal(sections[i].begin(), sections[i].end(), samples[i].bytes.begin() + 2));
            EXPECT_TRUE(samples[i].syncPoint && !samples[i].time);
        }
    }
}

// A delivery thread that waits for a buffer when the stream is reset must not go on with what came later.
TEST(Reset, ASenderThatWaitsForABufferStartsAnew) {
    SplitterGraph graph;
    TestSink& sink = graph.Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {kPid}, MEDIA_TRANSPORT_PACKET);
    std::mutex mutex;
    ComPtr<IMediaSample> held;
    sink.OnSample([&](IMediaSample& sample) {
        const std::lock_guard lock(mutex);
        if (sink.Samples().empty())
            held = ComPtr<IMediaSample>(&sample);
        return S_OK;
    });
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
    const auto packets = [&builder](uint8_t number) {
        for (int i = 0; i < 20; ++i)
            builder.stream().Packet(kPid, Bytes(184, number));
        return builder.Padding().Take();
    };
    builder.Tables();
    ASSERT_EQ(graph.source->Push(packets(1)), S_OK);
    ASSERT_TRUE(sink.WaitForSamples(1));
    ASSERT_EQ(graph.source->Push(packets(2)), S_OK);
    const auto content = graph.Pin(u"t")->Content();
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() >= 20 * 188; }));
    ASSERT_EQ(graph.splitter->Reset(), S_OK);
    EXPECT_EQ(content->QueuedBytes(), 0);
    ASSERT_EQ(graph.source->Push(packets(3)), S_OK);
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() >= 20 * 188; }));
    {
        const std::lock_guard lock(mutex);
        held.Reset();
    }
    // Without a program nothing goes out; with the tables all does.
    builder.Tables();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(content->QueuedBytes(), 20 * 188);
    ASSERT_EQ(graph.source->Push(packets(4)), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    Bytes numbers;
    for (const ReceivedSample& sample : sink.Samples())
        for (size_t at = 0; at < sample.bytes.size(); at += kPacketSize)
            if (numbers.empty() || numbers.back() != sample.bytes[at + 4])
                numbers.push_back(sample.bytes[at + 4]);
    EXPECT_THAT(numbers, ElementsAre(1, 3, 4));
}

TEST(Mapping, ChangesAtTheByteWhereItCame) {
    SplitterGraph graph;
    TestSink& sink = graph.Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {kPid}, MEDIA_TRANSPORT_PACKET);
    Gate gate(sink);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid)}}});
    const auto pairs = [&builder](uint8_t from) {
        for (uint8_t i = from; i < from + 30; ++i)
            builder.stream().Packet(kPid, Bytes(184, i)).Packet(kOtherPid, Bytes(184, i));
        return builder.Padding(1).Take();
    };
    builder.Tables();
    ASSERT_EQ(graph.source->Push(pairs(0)), S_OK);
    ASSERT_TRUE(gate.WaitUntilReached());
    const auto pin = graph.Pin(u"t");
    const auto content = pin->Content();
    ASSERT_TRUE(Eventually([&] { return content->QueuedBytes() + gate.Length() == 30 * 188; }));
    const ULONG other = kOtherPid;
    ASSERT_EQ(pin->MapPID(1, &other, MEDIA_TRANSPORT_PACKET), S_OK);
    ASSERT_EQ(graph.source->Push(pairs(30)), S_OK);
    gate.Open();
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    std::vector<std::pair<uint8_t, uint8_t>> received;  // low byte of the PID, number
    std::vector<size_t> discontinuities;
    for (const ReceivedSample& sample : sink.Samples()) {
        if (sample.discontinuity)
            discontinuities.push_back(received.size());
        for (size_t at = 0; at < sample.bytes.size(); at += kPacketSize)
            received.emplace_back(sample.bytes[at + 2], sample.bytes[at + 4]);
    }
    std::vector<std::pair<uint8_t, uint8_t>> expected;
    for (uint8_t i = 0; i < 60; ++i) {
        expected.emplace_back(0x11, i);
        if (i >= 30)
            expected.emplace_back(0x12, i);
    }
    EXPECT_EQ(received, expected);
    EXPECT_THAT(discontinuities, ElementsAre(0, 30));
}

}  // namespace
}  // namespace tessel
