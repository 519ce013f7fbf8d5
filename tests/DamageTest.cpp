// What damage of the stream costs at the output pins.
#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

using build::Audio;
using build::Bytes;
using build::kPacketSize;
using build::ProgrammeBuilder;
using build::Video;

constexpr uint16_t kPid = 0x111;
constexpr uint16_t kOtherPid = 0x112;

build::ElementaryStream Subtitles(uint16_t pid, size_t pesSize) {
    return {.pid = pid,
            .streamType = 0x06,
            .streamId = 0xBD,
            .pesSize = pesSize,
            .descriptors = {build::Subtitling({{"eng", 0x10, 1, 1}})}};
}

enum class Fault { kTwice, kLost, kAnnounced, kBrokenStart };

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
    uint8_t ahead = 0;  // of the counters
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
        if (hit && damage.fault == Fault::kAnnounced) {
            // With a discontinuity_indicator, for which its last two bytes make room.
            ahead = 5;
            packet[3] |= 0x20;
            packet.insert(packet.begin() + 4, {1, 0x80});
            packet.resize(kPacketSize);
        }
        if (header.Pid() == kPid)
            packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | ((packet[3] + ahead) & 0x0F));
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
    const std::vector<size_t> at = {0, kPes * kSize + damage.lostBytes.first};
    EXPECT_EQ(sink.Discontinuities(), damage.discontinuity ? at : std::vector<size_t>{0});
    // The wrong time would be worse than none.
    const size_t times = damage.fault == Fault::kBrokenStart && !isVideo ? 59 : 60 - damage.lostPes.size();
    EXPECT_EQ(sink.Times().size(), times);
}

// A first packet holds 170 bytes behind its PES header, the others 184.
INSTANTIATE_TEST_SUITE_P(
    All, Damages,
    testing::Values(Damage{"VideoTwice", MediaClass::kVideo, Fault::kTwice, {}, {}, false},
                    Damage{"VideoLost", MediaClass::kVideo, Fault::kLost, {40}, {}, false},
                    Damage{"VideoAnnounced", MediaClass::kVideo, Fault::kAnnounced, {}, {720, 722}, false},
                    Damage{"VideoStart", MediaClass::kVideo, Fault::kBrokenStart, {39, 40}, {}, false},
                    Damage{"AudioTwice", MediaClass::kAudio, Fault::kTwice, {}, {}, false},
                    Damage{"AudioLost", MediaClass::kAudio, Fault::kLost, {}, {538, 722}, false},
                    Damage{"AudioStart", MediaClass::kAudio, Fault::kBrokenStart, {}, {0, 170}, false},
                    Damage{"SubtitleTwice", MediaClass::kSubtitle, Fault::kTwice, {}, {}, false},
                    Damage{"SubtitleLost", MediaClass::kSubtitle, Fault::kLost, {}, {538, 722}, true},
                    Damage{"SubtitleStart", MediaClass::kSubtitle, Fault::kBrokenStart, {}, {0, 170}, true}),
    [](const auto& damage) { return std::string(damage.param.what); });

// The pictures that lie around it in time have lost what they refer to.
TEST(Damage, ALostReferencePictureIsMarked) {
    SplitterGraph graph;
    TestSink& sink = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
    graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid, 2'000), Audio(kOtherPid)}}});
    builder.Tables().Frames(40);
    Bytes& stream = builder.stream().bytes();
    const auto second = static_cast<ptrdiff_t>(stream.size() + kPacketSize);
    const int64_t later = builder.Stamps(kPid).back().time + 3 * ProgrammeBuilder::kFrame;
    builder.stream().Pes(kPid, 0xE0, Bytes(1'000, 0x55), {.pts = later, .unbounded = true});
    stream.erase(stream.begin() + second, stream.begin() + second + static_cast<ptrdiff_t>(kPacketSize));
    ASSERT_EQ(graph.source->Push(builder.Frames(20).Padding().Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    ASSERT_TRUE(sink.WaitForEnd());
    EXPECT_TRUE(sink.Bytes() == builder.Payload(kPid));
    const auto samples = sink.Samples();
    ASSERT_EQ(samples.size(), 60u);
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_EQ(samples[i].discontinuity, i == 0 || i == 40) << i;
}

// An output finds a wrong time when the last PCR has been parsed: what comes behind waits for a start in vain, and goes
// out at the end. It is less than a start needs, and it begins in the middle of a picture.
TEST(WrongTimes, TheEndBringsWhatWaitsForAPcr) {
    SplitterGraph graph;
    TestSink& video = graph.AddStream(u"v", MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, kPid);
    TestSink& audio = graph.AddStream(u"a", MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, kOtherPid);
    ASSERT_EQ(graph.Run(), S_OK);
    ProgrammeBuilder builder({{.streams = {Video(kPid, 6'000), Audio(kOtherPid, 500)}}});
    build::Programme& programme = builder.programmes()[0];
    builder.Tables().Frames(20);
    programme.streams[0].ptsOffset = 900'000;
    builder.Frames(1);
    programme.streams[0].ptsOffset = 0;
    const Bytes stream = builder.Frames(1).Take();
    const auto cut = stream.end() - 10 * kPacketSize;
    ASSERT_EQ(graph.source->Push({stream.begin(), cut}), S_OK);
    ASSERT_TRUE(Eventually([&] { return video.Bytes().size() >= 21 * 6'000; })) << "the picture with the wrong time";
    programme.pcrPid = 0x1F0;
    builder.Frames(4).Padding();
    ASSERT_EQ(graph.source->Push({cut, stream.end()}), S_OK);
    ASSERT_EQ(graph.source->Push(builder.Take()), S_OK);
    ASSERT_EQ(graph.End(), S_OK);
    for (TestSink* sink : {&video, &audio}) {
        ASSERT_TRUE(sink->WaitForEnd());
        EXPECT_TRUE(sink->Bytes() == builder.Payload(sink == &video ? kPid : kOtherPid));
    }
    EXPECT_EQ(video.Times().size(), 25u);
    EXPECT_EQ(audio.Times().size(), 26u);
}

}  // namespace
}  // namespace tessel
