// The contents of output pins: what they keep, what they drop, when they send, and with what times.
#include <gmock/gmock.h>

#include "core/StartSync.h"
#include "core/stream/PesReader.h"
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

constexpr uint16_t kPid = 0x111;
constexpr uint16_t kOtherPid = 0x112;

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

TEST(PesReader, TellsHeadersFromPayload) {
    constexpr auto kOne = PesReader::Headers::kInFirstPacket;
    constexpr auto kSplit = PesReader::Headers::kSplit;
    const Bytes data(500, 0x55);
    struct {
        const char* what;
        PesReader::Headers headers;
        size_t stuffing;
        size_t first;    // bytes of the PES packet in the first transport packet
        size_t payload;  // bytes that come out
        bool timed;
    } const cases[] = {
        {"a header in a packet", kOne, 0, 184, 500, true},
        {"a header longer than a packet", kOne, 241, 184, 500, true},
        {"a header cut in its time stamp", kOne, 0, 13, 500, false},
        {"a header cut too early to be told", kOne, 0, 10, 514, false},
        {"a header longer than a packet, put together", kSplit, 241, 184, 500, true},
        {"a header cut in its time stamp, put together", kSplit, 9, 13, 500, true},
        {"a header cut early, put together", kSplit, 241, 1, 500, true},
    };
    for (const auto& [what, headers, stuffing, first, payload, timed] : cases) {
        SCOPED_TRACE(what);
        const Bytes pes = build::PesPacket(0xC0, data, {.pts = 900, .headerStuffing = stuffing});
        StreamBuilder stream;
        for (int i = 0; i < 2; ++i) {
            stream.Packet(kPid, std::span(pes).first(first), {.unitStart = true, .duplicate = true});
            for (size_t at = first; at < pes.size(); at += 180)
                stream.Packet(kPid, std::span(pes).subspan(at, std::min<size_t>(180, pes.size() - at)),
                              {.duplicate = true});
        }
        const Bytes none = build::Join({{0x00, 0x01}, data});
        stream.Packet(kPid, std::span(none).first(180), {.unitStart = true});
        PesReader reader(headers);
        size_t got = 0;
        size_t stamps = 0;
        size_t gaps = 0;
        for (size_t at = 0; at < stream.bytes().size(); at += kPacketSize) {
            const uint8_t* const packet = stream.bytes().data() + at;
            const TsHeader header = DecodeTsHeader(packet);
            const PesPart part = reader.Read(
                packet, header,
                header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{});
            got += part.payload.size();
            stamps += part.begins && part.pts == 900 && part.timestamp == 900 ? 1 : 0;
            gaps += part.follows ? 0 : 1;
        }
        EXPECT_EQ(got, 2 * payload);
        EXPECT_EQ(stamps, timed ? 2 : 0);
        EXPECT_EQ(gaps, 1);
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
    HRESULT Add(const Bytes& packets) { return AddTo(*content, packets); }
    static HRESULT AddTo(CStreamExecutor& content, const Bytes& packets) {
        for (size_t at = 0; at < packets.size(); at += kPacketSize) {
            const uint8_t* packet = packets.data() + at;
            const TsHeader header = DecodeTsHeader(packet);
            const auto adaptation =
                header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{};
            const OfferedPacket offered{packet, header, adaptation};
            size_t taken = 0;
            if (const HRESULT result = content.AddPackets({&offered, 1}, &taken); result != S_OK)
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
        if (cut) {
            // What follows a gap is no header.
            const auto counter = static_cast<uint8_t>((at.stream.NextContinuity(kPid) + 3) & 0x0F);
            at.stream.Packet(kPid, Bytes(184, 0x22), {.continuity = counter});
            EXPECT_EQ(at.Add(std::exchange(at.stream.bytes(), {})), S_OK);
            EXPECT_EQ(at.content->QueuedBytes(), 184);
            EXPECT_EQ(at.content->DropData(184), S_OK);
        }
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

// Two contents on one clock, pictures and sound, which ask for the common start when the test says so.
struct TwoContents {
    explicit TwoContents(StreamingMode mode) : video(2, {kPid}, mode) {
        AM_MEDIA_TYPE type = MakeMediaType(MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
        ComPtr<IPin> handle;
        EXPECT_EQ(video.filter->CreateOutputPin(&type, u"other", handle.Put()), S_OK);
        const auto pin = std::dynamic_pointer_cast<CTsOutputPin>(video.filter->GetPin(1));
        const ULONG pid = kOtherPid;
        EXPECT_EQ(pin->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
        pins = {video.pin, pin};
        audio = pin->Content();
        EXPECT_EQ(audio->Active(), S_OK);
    }
    ~TwoContents() { audio->Inactive(); }
    std::vector<build::ElementaryStream>& Streams() { return video.tables.programmes()[0].streams; }
    void Feed(StreamBuilder& stream) { video.filter->Feed(stream.Null().bytes()); }
    HRESULT Start(const CStreamExecutor& content, SyncOrigin* out) {
        return StartClock(video.filter->Clocks(), content, pins, {}, out);
    }

    LooseContent video;
    std::shared_ptr<CStreamExecutor> audio;
    std::vector<OutputPinPtr> pins;
};

TEST(StartSync, WaitsForHalfASecondAnd64KiB) {
    struct {
        int64_t pcr;  // of the second one, after 0
        size_t bytes;
        HRESULT result;
    } const cases[] = {{13'499'999, 65'536, E_FAIL}, {13'500'000, 65'535, E_FAIL}, {13'500'000, 65'536, S_OK}};
    for (const auto& [pcr, bytes, result] : cases) {
        LooseContent at(2, {kPid});
        at.Bind(0x02);
        EXPECT_EQ(at.AddPes(5, bytes), S_OK);
        at.filter->Feed(StreamBuilder().Pcr(0x101, 0).Pcr(0x101, pcr).Null().Null().bytes());
        SyncOrigin origin{};
        SyncSettings settings{};
        settings.waitsForHalfSecond = true;
        EXPECT_EQ(StartClock(at.filter->Clocks(), *at.content, {&at.pin, 1}, settings, &origin), result)
            << pcr << " " << bytes;
    }
}

// An output that has failed gets no data any more.
TEST(StartSync, WaitsForNoStreamThatHasFailed) {
    TwoContents at(StreamingMode::kRecording);
    at.Streams() = {Video(kPid), Audio(kOtherPid)};
    at.Feed(at.video.tables.Tables().stream().Pcr(0x101, 0));
    EXPECT_EQ(at.video.AddPes(5, 70'000), S_OK);
    SyncOrigin origin{};
    EXPECT_EQ(at.Start(*at.video.content, &origin), E_FAIL) << "sound has still to come";
    at.pins[1]->SetRuntimeError();
    EXPECT_EQ(at.Start(*at.video.content, &origin), S_OK);
}

// In a file the program of a mapped stream is known without a connection.
TEST(StartSync, WaitsForNoStreamThatIsNotPlayed) {
    LooseContent donor(2, {kPid});
    donor.tables.programmes()[0].streams = {Video(kPid), Audio(kOtherPid)};
    donor.filter->Feed(donor.tables.Tables().Padding().Take());
    ComPtr<IDvbTable> table;
    ASSERT_EQ(donor.filter->GetTable(0x02, 1, table.Put()), S_OK);
    const auto pmt = table.As<IDvbProgramMapTable>();

    TwoContents at(StreamingMode::kFile);
    for (const auto& content : {at.video.content, at.audio})
        EXPECT_EQ(content->SetProgram(1, pmt.Get(), content->Epoch()), S_OK);
    const int32_t pcrPid = at.video.pin->GetPcrPid();
    ASSERT_GE(pcrPid, 0);
    EXPECT_EQ(at.video.AddPes(5, 70'000), S_OK);
    at.Feed(StreamBuilder().Pcr(static_cast<uint16_t>(pcrPid), 0));
    SyncOrigin origin{};
    EXPECT_EQ(at.Start(*at.video.content, &origin), E_FAIL) << "the other stream plays";
    at.audio->Inactive();
    EXPECT_EQ(at.pins[1]->GetPcrPid(), pcrPid);
    EXPECT_EQ(at.Start(*at.video.content, &origin), S_OK);
    EXPECT_EQ(origin.pts, 5);
}

// Sound has started, and has come to its end; the clock jumps on before the pictures ask for that start.
TEST(StartSync, IsTheSameForThoseWhoAskBehindAJump) {
    constexpr uint16_t kPcrPid = 0x101;
    for (const StreamingMode mode : {StreamingMode::kRecording, StreamingMode::kLive}) {
        SCOPED_TRACE(mode == StreamingMode::kLive ? "live" : "rec");
        TwoContents at(mode);
        at.Streams() = {Video(kPid), Audio(kOtherPid)};
        at.Feed(at.video.tables.Tables().stream().Pcr(kPcrPid, 0));
        EXPECT_EQ(at.video.AddPes(300'000, 70'000), S_OK);
        StreamBuilder sound;
        sound.Pes(kOtherPid, 0xC0, Bytes(100), {.pts = 200'000});
        EXPECT_EQ(LooseContent::AddTo(*at.audio, sound.bytes()), S_OK);
        SyncOrigin first{}, second{};
        ASSERT_EQ(at.Start(*at.audio, &first), S_OK);
        at.audio->Inactive();
        at.Feed(StreamBuilder().Packet(kPcrPid, {}, {.discontinuity = true}));
        EXPECT_EQ(at.Start(*at.video.content, &second), S_OK) << "before the PCR of the jump";
        EXPECT_EQ(std::pair(second.pts, second.time), std::pair(first.pts, first.time));
        at.Feed(StreamBuilder().Pcr(kPcrPid, 900'000'000));
        EXPECT_EQ(at.Start(*at.video.content, &second), S_OK) << "behind it";
        EXPECT_EQ(std::pair(second.pts, second.time), std::pair(first.pts, first.time));
    }
}

}  // namespace
}  // namespace tessel
