// Section assembly from packets, and the CRC of sections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "core/stream/TsHeader.h"
#include "tables/Crc32.h"
#include "tables/SectionFilter.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {
namespace {

using build::Bytes;
using build::LongSection;
using build::ShortSection;
using build::StreamBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint16_t kPid = 0x100;

TEST(Crc, TheFastFormIsTheStandardsAtEveryLengthAndAlignment) {
    EXPECT_EQ(Mpeg2Crc32({}), 0xFFFFFFFFu);
    EXPECT_EQ(Mpeg2Crc32(build::Text("123456789")), 0x0376E6E7u);
    Bytes bytes(200);
    uint32_t random = 1;
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>((random = random * 1'103'515'245 + 12'345) >> 16);
    for (size_t start = 0; start < 16; ++start) {
        for (size_t length = 0; start + length <= bytes.size(); ++length) {
            const std::span<const uint8_t> part(bytes.data() + start, length);
            ASSERT_EQ(Mpeg2Crc32(part), build::Crc32(part)) << start << " " << length;
            ASSERT_EQ(Mpeg2Crc32Bytewise(part), build::Crc32(part)) << start << " " << length;
        }
    }
}

// Hands the packets of stream to filter as the filter base does; the sections that came out.
std::vector<Bytes> Assemble(SectionFilter& filter, const StreamBuilder& stream) {
    std::vector<Bytes> sections;
    for (size_t at = 0; at < stream.bytes().size(); at += build::kPacketSize) {
        const uint8_t* packet = stream.bytes().data() + at;
        const TsHeader header = DecodeTsHeader(packet);
        const auto adaptation =
            header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{};
        const int32_t offset = PayloadOffset(header, adaptation);
        filter.AssembleSection(packet + offset, kTransportPacketSize - offset, header.PayloadUnitStartIndicator(),
                               adaptation.DiscontinuityIndicator(), header.ContinuityCounter());
        if (const auto section = filter.TakeCompleted(); !section.empty())
            sections.emplace_back(section.begin(), section.end());
    }
    return sections;
}

std::vector<Bytes> Assemble(const StreamBuilder& stream, uint16_t pid = kPid) {
    SectionFilter filter(pid);
    return Assemble(filter, stream);
}

// Sections that differ, of size bytes of payload.
Bytes Numbered(uint16_t number, size_t size = 20) {
    return LongSection(0xC0, number, Bytes(size, static_cast<uint8_t>(number)));
}

const Bytes kA = Numbered(1);
const Bytes kB = Numbered(2);
const Bytes kC = Numbered(3);
const Bytes kLong = Numbered(4, 400);  // three packets

TEST(SectionFilter, ASectionIsReportedAtTheNextUnitStart) {
    StreamBuilder stream;
    SectionFilter filter(kPid);
    EXPECT_THAT(Assemble(filter, stream.Section(kPid, kA)), IsEmpty());
    StreamBuilder next;
    EXPECT_THAT(Assemble(filter, next.Section(kPid, kB, {.packet = {.continuity = 1}})), ElementsAre(kA));
    EXPECT_TRUE(filter.TakeCompleted().empty());
}

TEST(SectionFilter, ThePointerFieldSplitsAPacketBetweenTwoSections) {
    EXPECT_THAT(Assemble(StreamBuilder().Sections(kPid, {Numbered(1, 300), Numbered(2, 300)}).Section(kPid, kC)),
                ElementsAre(Numbered(1, 300), Numbered(2, 300)));
    // A packet completes one section: the second of two that it holds whole is lost.
    EXPECT_THAT(Assemble(StreamBuilder().Sections(kPid, {kA, kB}).Section(kPid, kC)), ElementsAre(kA));
    // Bytes before the first section belong to none.
    EXPECT_THAT(Assemble(StreamBuilder().Section(kPid, kA, {.lead = Bytes(30, 0x55)}).Section(kPid, kC)),
                ElementsAre(kA));
}

// Sends the first and the middle packet of kLong as the case says, then its end and kA.
TEST(SectionFilter, ContinuityDecidesWhatASectionKeeps) {
    Bytes start = {0};
    start.insert(start.end(), kLong.begin(), kLong.begin() + 183);
    const Bytes middle(kLong.begin() + 183, kLong.begin() + 367);
    Bytes end(kLong.begin() + 367, kLong.end());
    const struct {
        const char* name;
        build::PacketOptions first, second, third;
        bool complete;
    } cases[] = {
        {"in order", {}, {}, {}, true},
        {"wrapping", {.continuity = 15}, {}, {}, true},
        {"every packet twice", {.duplicate = true}, {.duplicate = true}, {.duplicate = true}, true},
        {"a gap", {}, {.continuity = 2}, {}, false},
        {"a gap before the end", {}, {}, {.continuity = 9}, false},
        {"an announced gap", {}, {.continuity = 9, .discontinuity = true, .stuffing = 0}, {}, true},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.name);
        c.first.unitStart = true;
        StreamBuilder stream;
        stream.Packet(kPid, start, c.first);
        // An adaptation field takes room from the middle packet, and the end gets what it lost.
        const size_t room = std::min(StreamBuilder::Room(c.second), middle.size());
        const Bytes rest = build::Join({Bytes(middle.begin() + static_cast<ptrdiff_t>(room), middle.end()), end});
        stream.Packet(kPid, {middle.data(), room}, c.second).Packet(kPid, rest, c.third);
        stream.Section(kPid, kA).Section(kPid, kB);
        if (c.complete)
            EXPECT_THAT(Assemble(stream), ElementsAre(kLong, kA));
        else
            EXPECT_THAT(Assemble(stream), ElementsAre(kA));
    }
}

TEST(SectionFilter, AGapAtAUnitStartLosesThatUnitAsWell) {
    StreamBuilder stream;
    stream.Section(kPid, kA).Section(kPid, kB, {.packet = {.continuity = 5}}).Section(kPid, kC).Section(kPid, kA);
    EXPECT_THAT(Assemble(stream), ElementsAre(kC));
}

// What becomes of a section, and of the one that starts in the packet that ends it.
TEST(SectionFilter, JudgesASectionWhenTheNextOneStarts) {
    Bytes broken = kA;
    broken[10] ^= 0x10;
    Bytes broken71 = LongSection(0x71, 1, {1, 2, 3});
    broken71.back() ^= 1;
    const Bytes longForm = LongSection(0, 1, {});
    enum Fate { kTaken, kDropped, kDroppedWithNext };
    const struct {
        const char* name;
        uint16_t pid;
        Bytes section;
        Fate fate;
    } cases[] = {
        {"a CRC error", kPid, broken, kDropped},
        {"no CRC in the short form", kPid, ShortSection(0xC0, {1, 2, 3}), kTaken},
        {"no check of table_id 0x71", kPid, broken71, kTaken},
        {"a length beyond what was collected", kPid, LongSection(0xC0, 1, {}, {.sectionLength = 400}),
         kDroppedWithNext},
        {"no room for a CRC", kPid, {0xC0, 0xB0, 3, 1, 2, 3}, kDropped},
        {"stuffing", kPid, ShortSection(0x72, {1, 2}), kDroppedWithNext},
        {"a PAT", 0x0000, LongSection(0x00, 1, {}), kTaken},
        {"a PAT elsewhere", kPid, LongSection(0x00, 1, {}), kDroppedWithNext},
        {"a short PAT", 0x0000, ShortSection(0x00, Bytes(9)), kDroppedWithNext},
        {"a CAT elsewhere", 0x0000, LongSection(0x01, 1, {}), kDroppedWithNext},
        {"a PMT anywhere", kPid, LongSection(0x02, 1, {}), kTaken},
        {"a short PMT", kPid, ShortSection(0x02, Bytes(9)), kDroppedWithNext},
        {"a NIT elsewhere", 0x0011, LongSection(0x40, 1, {}), kDroppedWithNext},
        {"an SDT elsewhere", 0x0010, LongSection(0x42, 1, {}), kDroppedWithNext},
        {"a BAT elsewhere", kPid, LongSection(0x4A, 1, {}), kDroppedWithNext},
        {"an EIT elsewhere", 0x0011, LongSection(0x4F, 1, {}), kDroppedWithNext},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StreamBuilder stream;
        stream.Section(c.pid, c.section).Section(c.pid, kB).Section(c.pid, kC).Section(c.pid, kA);
        std::vector<Bytes> expected = {kB, kC};
        if (c.fate == kTaken)
            expected.insert(expected.begin(), c.section);
        if (c.fate == kDroppedWithNext)
            expected.erase(expected.begin());
        EXPECT_EQ(Assemble(stream, c.pid), expected);
    }
}

TEST(SectionFilter, FewerThanThreeCollectedBytesAreIncomplete) {
    for (const size_t size : {1, 2}) {
        StreamBuilder stream;
        stream.Packet(kPid, build::Join({Bytes{static_cast<uint8_t>(183 - size)}, Bytes(183, 0xC0)}),
                      {.unitStart = true});
        EXPECT_THAT(Assemble(stream.Section(kPid, kB).Section(kPid, kC).Section(kPid, kA)), ElementsAre(kC)) << size;
    }
}

TEST(SectionFilter, APointerFieldBeyondThePayloadFailsAndKeepsWhatIsCollected) {
    SectionFilter filter(kPid);
    const Bytes lie = {200, 1, 2, 3};
    EXPECT_EQ(filter.AssembleSection(lie.data(), 0, true, false, 0), E_FAIL);
    EXPECT_EQ(filter.AssembleSection(lie.data(), 4, true, false, 0), E_FAIL);
    EXPECT_EQ(filter.AssembleSection(Bytes{0}.data(), 1, true, false, 1), S_OK);  // a unit start and nothing else
    const Bytes unit = build::Join({Bytes{0}, kA});
    EXPECT_EQ(filter.AssembleSection(unit.data(), static_cast<int32_t>(unit.size()), true, false, 2), S_OK);
    EXPECT_EQ(filter.AssembleSection(lie.data(), 4, true, false, 3), E_FAIL);
    EXPECT_EQ(filter.AssembleSection(unit.data(), static_cast<int32_t>(unit.size()), true, false, 4), S_OK);
    EXPECT_EQ(filter.TakeCompleted().size(), kA.size());
}

TEST(SectionFilter, TakesTheLongestSectionAndBoundsCollections) {
    const Bytes longest = Numbered(5, 4095 - 9);
    ASSERT_EQ(longest.size(), 4098u);
    EXPECT_THAT(Assemble(StreamBuilder().Section(kPid, longest).Section(kPid, kA).Section(kPid, kB)),
                ElementsAre(longest, kA));
    // More than that without a unit start is no section.
    StreamBuilder endless;
    endless.Section(kPid, longest);
    endless.Packet(kPid, Bytes(184, 0xFF));
    EXPECT_THAT(Assemble(endless.Section(kPid, kA).Section(kPid, kB)), ElementsAre(kA));
}

}  // namespace
}  // namespace tessel
