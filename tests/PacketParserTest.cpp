// From bytes to packets: buffer, packet size, sync, positions, arrivals; and the byte readers under it.
#include "core/stream/PacketParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Classes/MultiPlatform/ByteReader.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {
namespace {

using build::Bytes;
using build::StreamBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

// What the parser handed on: the PID and stream position of each packet.
class Packets {
public:
    explicit Packets(const PacketParser& parser) : m_parser(parser) {}

    ParserStep ParsePacket(const uint8_t* packet) {
        seen.emplace_back(DecodeTsHeader(packet).Pid(), m_parser.StreamPosition());
        arrivals.push_back(m_parser.CurrentArrival().time);
        return refuse ? ParserStep::kRefused : ParserStep::kGoOn;
    }

    std::vector<std::pair<uint32_t, int64_t>> seen;
    std::vector<REFERENCE_TIME> arrivals;
    bool refuse = false;

private:
    const PacketParser& m_parser;
};

class PacketParserTest : public testing::Test {
protected:
    PacketParserTest() { EXPECT_EQ(m_parser.CreateBuffer(), S_OK); }

    void Add(std::span<const uint8_t> bytes) {
        const uint8_t* data = bytes.data();
        auto length = static_cast<int32_t>(bytes.size());
        ASSERT_EQ(m_parser.AddData(&data, &length), bytes.empty() ? E_OUTOFMEMORY : S_OK);
        ASSERT_EQ(length, 0);
    }

    PacketParser m_parser{65'536};
    Packets m_packets{m_parser};
};

Bytes Payload(uint8_t fill = 0x11) {
    return Bytes(184, fill);
}

// count packets of PIDs first, first + 1, ...
Bytes Series(size_t count, uint16_t first = 0x100) {
    StreamBuilder stream;
    for (size_t i = 0; i < count; ++i)
        stream.Packet(static_cast<uint16_t>(first + i), Payload());
    return stream.bytes();
}

Bytes First(Bytes bytes, size_t count) {
    bytes.resize(count);
    return bytes;
}

// A sync byte at each of the places among zeros.
Bytes Syncs(size_t size, std::initializer_list<size_t> places) {
    Bytes bytes(size);
    for (const size_t place : places)
        bytes[place] = 0x47;
    return bytes;
}

TEST_F(PacketParserTest, DetectsTheSpacingOfFourSyncBytes) {
    Bytes garbage(100);
    garbage[10] = garbage[11] = garbage[60] = 0x47;
    Bytes spaced204;
    for (int i = 0; i < 8; ++i)
        spaced204 = build::Join({spaced204, Series(1), Bytes(16)});
    const struct {
        const char* name;
        Bytes bytes;
        HRESULT result;
        int32_t size;
        int64_t position;
    } cases[] = {
        {"188", Series(4), S_OK, 188, 0},
        {"188 behind garbage with stray sync bytes", build::Join({garbage, Series(4)}), S_OK, 188, 100},
        {"192", build::Units192(Series(5)), S_OK, 192, 4},
        {"both spacings", Syncs(700, {0, 188, 192, 376, 384, 564, 576}), S_OK, 188, 0},
        {"a fourth sync byte missing", Syncs(800, {0, 188, 376, 563, 751}), E_ABORT, 188, 376},
        {"below the window", First(Series(4), 581), E_ABORT, 188, 0},
        {"exactly the window", First(Series(4), 582), E_ABORT, 188, 0},
        {"one byte more", First(Series(4), 583), S_OK, 188, 0},
        {"no sync byte", Bytes(1000), E_ABORT, 188, 1000},
        {"204", spaced204, E_ABORT, 188, 6 * 204},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PacketParser parser(65'536);
        ASSERT_EQ(parser.CreateBuffer(), S_OK);
        const uint8_t* data = c.bytes.data();
        auto length = static_cast<int32_t>(c.bytes.size());
        ASSERT_EQ(parser.AddData(&data, &length), S_OK);
        EXPECT_EQ(parser.DetectPacketSize(), c.result);
        EXPECT_EQ(parser.PacketSize(), c.size);
        EXPECT_EQ(parser.StreamPosition(), c.position);
    }
}

// Damage of every kind between packets; the same packets come whatever the pieces that the bytes arrive in.
TEST_F(PacketParserTest, FindsTheSamePacketsWhateverThePieces) {
    const Bytes lone = {1, 0x47, 2, 0x47, 0x47, 3};
    const Bytes clean = Series(3, 0x10);
    const Bytes cut(clean.begin(), clean.begin() + 2 * 188 + 50);  // the third packet loses its end
    const Bytes stream = build::Join({Bytes(100), cut, lone, Series(2, 0x20), Bytes(500, 0x47), Series(3, 0x30)});
    for (const bool inPlace : {false, true}) {
        for (const int piece : {1, 7, 150, 187, 188, 189, 600, 4000}) {
            SCOPED_TRACE(testing::Message() << piece << (inPlace ? " in place" : ""));
            PacketParser parser(1000);
            Packets packets(parser);
            ASSERT_EQ(parser.CreateBuffer(), S_OK);
            for (size_t at = 0; at < stream.size();) {
                const uint8_t* data = stream.data() + at;
                auto length = static_cast<int32_t>(std::min(static_cast<size_t>(piece), stream.size() - at));
                const int32_t before = length;
                if (inPlace) {
                    ASSERT_EQ(parser.ParseInPlace(packets, &data, &length), S_OK);
                }
                if (length > 0) {
                    ASSERT_EQ(parser.AddData(&data, &length), S_OK);
                }
                at += static_cast<size_t>(before - length);
                if (!inPlace) {
                    ASSERT_EQ(parser.ParseData(packets), S_OK);
                }
            }
            EXPECT_EQ(parser.BytesReceived(), static_cast<int64_t>(stream.size()));
            // The packet before damage has no sync byte behind it and is lost; the run of sync bytes looks like
            // packets, until the last of those ends inside the packet 0x30.
            ASSERT_GE(packets.seen.size(), 5u);
            EXPECT_EQ(packets.seen[0], std::pair(0x10u, int64_t{100}));
            EXPECT_EQ(packets.seen[1], std::pair(0x11u, int64_t{288}));
            EXPECT_EQ(packets.seen[2], std::pair(0x20u, int64_t{532}));
            EXPECT_EQ(packets.seen[3], std::pair(0x21u, int64_t{720}));
            EXPECT_EQ(packets.seen.back(), std::pair(0x31u, int64_t{1596}));
        }
    }
}

TEST_F(PacketParserTest, LeavesAPacketThatTheHandlerStopsAt) {
    Add(Series(3));
    m_packets.refuse = true;
    EXPECT_EQ(m_parser.ParseData(m_packets), S_FALSE);
    EXPECT_EQ(m_parser.ParseData(m_packets), S_FALSE);
    EXPECT_EQ(m_parser.StreamPosition(), 0);
    m_packets.refuse = false;
    EXPECT_EQ(m_parser.ParseData(m_packets), S_OK);
    EXPECT_THAT(m_packets.seen,
                ElementsAre(std::pair(0x100u, 0), std::pair(0x100u, 0), std::pair(0x100u, 0), std::pair(0x101u, 188)));
}

TEST_F(PacketParserTest, InPlaceLeavesTheCallerWhatTheHandlerStopsAt) {
    const Bytes stream = Series(5);
    Add(First(stream, 100));
    const uint8_t* data = stream.data() + 100;
    int32_t length = 4 * 188 - 100;
    m_packets.refuse = true;
    EXPECT_EQ(m_parser.ParseInPlace(m_packets, &data, &length), S_FALSE);
    EXPECT_EQ(m_parser.StreamPosition(), 0);
    EXPECT_EQ(m_parser.ParseInPlace(m_packets, &data, &length), S_FALSE) << "the buffer holds a backlog now";
    EXPECT_EQ(m_packets.seen.size(), 1u);
    m_packets.refuse = false;
    EXPECT_EQ(m_parser.ParseData(m_packets), S_OK);
    m_packets.refuse = true;
    EXPECT_EQ(m_parser.ParseInPlace(m_packets, &data, &length), S_FALSE);
    m_packets.refuse = false;
    Add({data, static_cast<size_t>(length)});
    EXPECT_EQ(m_parser.ParseData(m_packets), S_OK);
    EXPECT_EQ(m_packets.seen.back(), std::pair(0x102u, int64_t{376}));
    EXPECT_EQ(m_parser.BytesReceived(), 752);
}

TEST_F(PacketParserTest, CopiesWhatFitsAndLeavesTheRestWithTheCaller) {
    PacketParser parser(400);
    Packets packets(parser);
    ASSERT_EQ(parser.CreateBuffer(), S_OK);
    const Bytes stream = Series(4);
    const uint8_t* data = stream.data();
    auto length = static_cast<int32_t>(stream.size());
    EXPECT_EQ(parser.AddData(&data, &length), S_OK);
    EXPECT_EQ(data, stream.data() + 400);
    EXPECT_EQ(length, 352);
    EXPECT_EQ(parser.AddData(&data, &length), E_OUTOFMEMORY);
    EXPECT_EQ(length, 352);
    EXPECT_EQ(parser.BytesReceived(), 400);
    EXPECT_EQ(parser.ParseData(packets), S_OK);  // two packets out, the rest moves to the front
    EXPECT_EQ(parser.AddData(&data, &length), S_OK);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(parser.ParseData(packets), S_OK);
    EXPECT_EQ(packets.seen.back(), std::pair(0x102u, int64_t{376}));
    EXPECT_EQ(parser.FlushBuffer(), S_OK);
    EXPECT_EQ(parser.StreamPosition(), 752);
}

TEST_F(PacketParserTest, WhileAnInPlaceWriteIsOpenNothingMoves) {
    PacketParser parser(600);
    Packets packets(parser);
    ASSERT_EQ(parser.CreateBuffer(), S_OK);
    const Bytes stream = Series(5);
    const auto room = parser.Reserve(65'536);
    ASSERT_EQ(room.size(), 600u);
    std::copy_n(stream.begin(), 590, room.begin());
    parser.Commit(590);
    ASSERT_EQ(parser.ParseData(packets), S_OK);
    ASSERT_EQ(parser.StreamPosition(), 564);

    const auto tail = parser.Reserve(500);  // after moving the 26 bytes that are left to the front
    ASSERT_EQ(tail.size(), 500u);
    const uint8_t* data = stream.data();
    int32_t length = 575;  // one more than there is room for behind them
    EXPECT_EQ(parser.AddData(&data, &length), E_OUTOFMEMORY);
    EXPECT_TRUE(parser.Reserve(575).empty());
    EXPECT_EQ(parser.Reserve(574).data(), tail.data());  // a second open write begins at the same place
    std::copy_n(stream.begin() + 590, 350, tail.begin());
    parser.Commit(350);
    EXPECT_EQ(parser.DetectPacketSize(), E_ABORT);
    EXPECT_EQ(parser.ParseData(packets), S_OK);
    EXPECT_EQ(packets.seen.size(), 3u);

    parser.Commit(0);  // closes the second one
    EXPECT_EQ(parser.ParseData(packets), S_OK);
    EXPECT_EQ(packets.seen.back(), std::pair(0x103u, int64_t{564}));
    parser.Commit(-1);  // one too many changes nothing
    EXPECT_EQ(parser.Reserve(10).size(), 10u);
    parser.Commit(1'000'000);  // cut to the room that there is, all of it: the rest was moved to the front
    EXPECT_EQ(parser.FlushBuffer(), S_OK);
    EXPECT_EQ(parser.StreamPosition(), 752 + 600);
}

TEST_F(PacketParserTest, APacketHasTheArrivalOfTheSampleThatItBeginsIn) {
    const Bytes stream = Series(5);
    Add(First(stream, 188));
    m_parser.NoteArrival(7);
    Add({stream.data() + 188, 200});
    m_parser.NoteArrival(8);
    m_parser.NoteArrival(9);
    Add({stream.data() + 388, 500});
    EXPECT_EQ(m_parser.ParseData(m_packets), S_OK);
    EXPECT_THAT(m_packets.arrivals, ElementsAre(0, 7, 7, 9));
    EXPECT_EQ(m_parser.CurrentArrival().position, 388);
    m_parser.ResetPositions();
    EXPECT_EQ(m_parser.CurrentArrival().position, INT64_MIN);
}

// A live source of garbage must not fill the memory with the times at which it came.
TEST_F(PacketParserTest, GarbageTakesItsArrivalsWithIt) {
    for (const bool detects : {true, false}) {
        for (int i = 0; i < 3; ++i) {
            m_parser.NoteArrival(m_parser.BytesReceived());
            Add(Bytes(600));
            EXPECT_EQ(detects ? m_parser.DetectPacketSize() : m_parser.ParseData(m_packets), detects ? E_ABORT : S_OK);
            EXPECT_EQ(m_parser.CurrentArrival().time, m_parser.BytesReceived() - 600);
        }
    }
}

TEST(ByteBuffer, KeepsALargerBlockAndNothingElse) {
    ByteBuffer buffer;
    EXPECT_EQ(buffer.Append(Bytes{1}.data(), 1), 0);
    ASSERT_TRUE(buffer.Allocate(100));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.ReadPointer()) % ByteBuffer::kAlignment, 0u);
    EXPECT_EQ(buffer.Append(Bytes(60).data(), 60), 60);
    ASSERT_TRUE(buffer.Allocate(50));
    EXPECT_EQ(buffer.Capacity(), 100);
    EXPECT_EQ(buffer.Available(), 60);
    ASSERT_FALSE(buffer.Reserve(1).empty());
    EXPECT_TRUE(buffer.Allocate(200));
    EXPECT_EQ(buffer.Capacity(), 100) << "the block of an open write is still written to";
    buffer.Commit(1);
    ASSERT_TRUE(buffer.Allocate(200));
    EXPECT_EQ(buffer.Capacity(), 200);
    EXPECT_EQ(buffer.Available(), 0);
}

TEST(ByteReader, ReadingPastTheEndFailsForGood) {
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7};
    ByteReader reader(bytes);
    EXPECT_EQ(reader.U16(), 0x0102);
    EXPECT_EQ(reader.U24(), 0x030405u);
    EXPECT_EQ(reader.U32(), 0u);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.U8(), 0);
    EXPECT_EQ(reader.Remaining(), 0u);
    ByteReader other(bytes);
    EXPECT_EQ(other.TakeUpTo(100).size(), 7u);
    EXPECT_TRUE(other.Ok());
    EXPECT_TRUE(other.Take(SIZE_MAX).empty());
    EXPECT_FALSE(other.Ok());
}

}  // namespace
}  // namespace tessel
