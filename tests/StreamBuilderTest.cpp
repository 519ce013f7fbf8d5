// The stream builder against bytes worked out by hand: the other tests trust it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/StreamBuilder.h"

namespace tessel::build {
namespace {

using testing::Each;
using testing::ElementsAre;

Bytes Part(const Bytes& all, size_t from, size_t count) {
    const auto start = all.begin() + static_cast<ptrdiff_t>(from);
    return {start, start + static_cast<ptrdiff_t>(count)};
}

Bytes PacketAt(const StreamBuilder& stream, size_t index) {
    return Part(stream.bytes(), index * kPacketSize, kPacketSize);
}

TEST(SectionBuilder, WritesAPat) {
    // section_length 13, transport_stream_id 1, version 0, program 1 on PID 0x1000.
    EXPECT_EQ(Pat(1, {{1, 0x1000}}),
              (Bytes{0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1, 0x00, 0x00, 0x00, 0x01, 0xF0, 0x00, 0x2A, 0xB1, 0x04, 0xB2}));
    const Bytes second = Pat(1, {}, {.version = 31, .currentNext = false, .sectionNumber = 1, .lastSectionNumber = 2});
    EXPECT_EQ(Part(second, 5, 3), (Bytes{0xFE, 1, 2}));
}

TEST(SectionBuilder, TheCrcIsTheOneOfTheStandard) {
    EXPECT_EQ(Crc32({}), 0xFFFFFFFFu);
    EXPECT_EQ(Crc32(Text("123456789")), 0x0376E6E7u);
    EXPECT_EQ(Crc32(Sdt({.transportStreamId = 1, .originalNetworkId = 2, .services = {{3}}})), 0u);
}

TEST(SectionBuilder, WritesDescriptors) {
    EXPECT_THAT(Language("deu", 3), ElementsAre(0x0A, 4, 'd', 'e', 'u', 3));
    EXPECT_THAT(Teletext({{"fra", 2, 8, 0x88}}), ElementsAre(0x56, 5, 'f', 'r', 'a', 2 << 3 | 0, 0x88));
    EXPECT_THAT(Subtitling({{"deu", 0x10, 1, 0x102}}), ElementsAre(0x59, 8, 'd', 'e', 'u', 0x10, 0, 1, 1, 2));
    EXPECT_THAT(Ac3({.bsid = 8, .asvc = 1}), ElementsAre(0x6A, 3, 0x50, 8, 1));
    EXPECT_THAT(ConditionalAccess(0x0B00, 0x1ABC), ElementsAre(0x09, 4, 0x0B, 0x00, 0xFA, 0xBC));
    EXPECT_THAT(VideoStream(), ElementsAre(0x02, 3, 0x18, 0x48, 0x5F));
    EXPECT_THAT(VideoStream({.mpeg1Only = true}), ElementsAre(0x02, 1, 0x1C));
    EXPECT_THAT(ServiceDescriptor(1, Text("P"), Text("NN")), ElementsAre(0x48, 6, 1, 1, 'P', 2, 'N', 'N'));
    EXPECT_THAT(DataBroadcast({.id = 6, .componentTag = 9, .text = Text("T")}),
                ElementsAre(0x64, 9, 0, 6, 9, 0, 'e', 'n', 'g', 1, 'T'));
}

TEST(SectionBuilder, WritesAVirtualChannel) {
    const Bytes vct = Vct(7, {{.shortName = u"CH1", .major = 7, .minor = 1, .program = 3, .sourceId = 5}});
    EXPECT_EQ(Part(vct, 8, 2), (Bytes{0, 1}));
    EXPECT_EQ(Part(vct, 10, 14), (Bytes{0, 'C', 0, 'H', 0, '1', 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Part(vct, 24, 3), (Bytes{0xF0, 0x1C, 0x01}));                 // 7 and 1, ten bits each
    EXPECT_EQ(Part(vct, 34, 6), (Bytes{0, 3, 0x0D, 0xC2, 0, 5}));           // program, flags with type 2, source
    EXPECT_EQ(Part(vct, 40, 4), (Bytes{0xFC, 0x00, 0xFC, 0x00}));           // both descriptor loops empty
    EXPECT_THROW(Vct(7, {{.shortName = u"TOOLONG8"}}), std::length_error);  // eight units
}

TEST(StreamBuilder, WritesAdaptationFields) {
    StreamBuilder stream;
    // base 0x155555555 and extension 299, the greatest.
    stream.Pcr(0x100, int64_t{0x155555555} * 300 + 299, {.discontinuity = true});
    EXPECT_EQ(Part(stream.bytes(), 0, 13),
              (Bytes{0x47, 0x01, 0x00, 0x2F, 183, 0x90, 0xAA, 0xAA, 0xAA, 0xAA, 0xFF, 0x2B, 0xFF}));

    struct Case {
        size_t payload;
        Bytes start;
    };
    const Case cases[] = {
        {184, {0x47, 0x01, 0x01, 0x10, 9}},
        {183, {0x47, 0x01, 0x01, 0x30, 0, 9}},
        {182, {0x47, 0x01, 0x01, 0x30, 1, 0, 9}},
        {181, {0x47, 0x01, 0x01, 0x30, 2, 0, 0xFF, 9}},
    };
    for (const Case& one : cases) {
        StreamBuilder each;
        each.Packet(0x101, Bytes(one.payload, 9));
        EXPECT_EQ(each.bytes().size(), kPacketSize);
        EXPECT_EQ(Part(each.bytes(), 0, one.start.size()), one.start);
    }
    EXPECT_THROW(stream.Packet(0x101, Bytes(183), {.randomAccess = true}), std::length_error);
}

TEST(StreamBuilder, CountsContinuityOfEachPid) {
    StreamBuilder stream;
    const Bytes payload(184);
    stream.Packet(1, payload).Packet(2, payload).Packet(1, payload, {.duplicate = true}).Pcr(1, 0);
    stream.Packet(1, payload).Packet(1, payload, {.continuity = 15}).Packet(1, payload);
    Bytes counters;
    for (size_t i = 0; i < stream.packets(); ++i)
        counters.push_back(PacketAt(stream, i)[3] & 15);
    EXPECT_THAT(counters, ElementsAre(0, 0, 1, 1, 1, 2, 15, 0));
}

// Reads sections as ISO/IEC 13818-1, 2.4.4.1 says, with nothing but pointer_field and section_length.
std::vector<Bytes> SectionsOf(const StreamBuilder& stream) {
    std::vector<Bytes> found;
    Bytes open;
    const auto cut = [&] {
        while (open.size() >= 3 && open[0] != 0xFF) {
            const size_t length = 3u + ((open[1] & 15u) << 8 | open[2]);
            if (open.size() < length)
                return;
            found.push_back(Part(open, 0, length));
            open = Part(open, length, open.size() - length);
        }
    };
    for (size_t i = 0; i < stream.packets(); ++i) {
        const Bytes packet = PacketAt(stream, i);
        size_t from = 4;
        if ((packet[1] & 0x40) != 0) {
            const size_t start = 5u + packet[4];
            const Bytes tail = Part(packet, 5, start - 5);
            open.insert(open.end(), tail.begin(), tail.end());
            cut();
            open.clear();
            from = start;
        }
        open.insert(open.end(), packet.begin() + static_cast<ptrdiff_t>(from), packet.end());
        cut();
    }
    return found;
}

TEST(StreamBuilder, SectionsBackToBackKeepEveryByte) {
    // Lengths around the room of one packet: a start may fall on the last byte of a packet or just miss it.
    for (size_t length = 160; length < 200; ++length) {
        std::vector<Bytes> sections;
        for (uint8_t i = 0; i < 5; ++i)
            sections.push_back(ShortSection(0x80 + i, Bytes(length, i)));
        StreamBuilder shared;
        shared.Sections(0x20, sections);
        EXPECT_EQ(SectionsOf(shared), sections) << length;
        StreamBuilder apart;
        for (const Bytes& section : sections)
            apart.Section(0x20, section);
        EXPECT_EQ(SectionsOf(apart), sections) << length;
        EXPECT_LE(shared.packets(), apart.packets());
    }
}

TEST(StreamBuilder, SectionPointersLeadAndLie) {
    StreamBuilder stream;
    stream.Section(0x20, ShortSection(0x80, {1}), {.lead = {7, 8}});
    EXPECT_EQ(Part(stream.bytes(), 4, 8), (Bytes{2, 7, 8, 0x80, 0x70, 1, 1, 0xFF}));
    stream.Section(0x20, ShortSection(0x80, {1}), {.pointer = 200, .packet = {.scrambling = 2}});
    EXPECT_EQ(Part(PacketAt(stream, 1), 1, 4), (Bytes{0x40, 0x20, 0x91, 200}));
}

TEST(StreamBuilder, WritesPesPackets) {
    EXPECT_EQ(PesPacket(0xE0, {9}, {.pts = 0x1FFFFFFFF, .dts = 1, .unbounded = true, .aligned = true}),
              (Bytes{0, 0, 1, 0xE0, 0, 0, 0x84, 0xC0, 10, 0x3F, 0xFF, 0xFF, 0xFF, 0xFF, 0x11, 0, 1, 0, 3, 9}));
    EXPECT_EQ(PesPacket(0xBF, {9}), (Bytes{0, 0, 1, 0xBF, 0, 1, 9}));

    StreamBuilder stream;
    stream.Pes(0x100, 0xC0, Bytes(300, 9), {.pts = 0, .packet = {.randomAccess = true, .pcr = 0}});
    ASSERT_EQ(stream.packets(), 2u);
    EXPECT_EQ(Part(PacketAt(stream, 0), 1, 5), (Bytes{0x41, 0x00, 0x30, 7, 0x50}));
    EXPECT_EQ(Part(PacketAt(stream, 0), 12, 6), (Bytes{0, 0, 1, 0xC0, 0x01, 0x34}));
    EXPECT_EQ(Part(PacketAt(stream, 1), 1, 3), (Bytes{0x01, 0x00, 0x31}));
    EXPECT_THAT(Part(PacketAt(stream, 1), 50, 138), Each(9));
}

TEST(StreamBuilder, MakesUnitsOf192Bytes) {
    StreamBuilder stream;
    stream.Null().Null();
    const Bytes units = Units192(stream.bytes(), {1, 2, 3, 4});
    ASSERT_EQ(units.size(), 384u);
    EXPECT_EQ(Part(units, 192, 8), (Bytes{1, 2, 3, 4, 0x47, 0x1F, 0xFF, 0x10}));
}

}  // namespace
}  // namespace tessel::build
