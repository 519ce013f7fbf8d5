// Sections of all tables with sound lengths and CRCs, through a filter, into the service list.
//
// The input is a sequence of records of a kind and what belongs to it. Kinds 0 to 4 are sections: 16 bits, of
// which 0 to 11 are the size and 12 to 13 choose the PID of a program map table, then what stands between
// section_length and CRC_32. Kind 5 is a packet of a PID, 6 reads, 7 completes the list or resets
// (with bit 7).
#include <algorithm>
#include <utility>

#include "Classes/MultiPlatform/ByteReader.h"
#include "fuzz/FuzzFilter.h"
#include "tables/Crc32.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {
namespace {

constexpr int32_t kCapacity = 8192;
constexpr size_t kPayloadSize = 184;
constexpr size_t kMaxBody = 4080;
constexpr int kMaxCostly = 8;  // resets, and readings of everything, in one run
constexpr uint16_t kFirstPmtPid = 0x0100;

constexpr struct {
    uint8_t tableId;
    uint16_t pid;
} kTables[] = {{kProgramAssociationTable, 0x0000},
               {kProgramMapTable, kFirstPmtPid},
               {kServiceDescriptionTable, 0x0011},
               {kMasterGuideTable, 0x1FFB},
               {kVirtualChannelTable, 0x1FFB}};

class Stream {
public:
    FuzzFilter& Filter() { return *m_filter; }
    size_t BytesFed() const { return m_bytesFed; }
    bool TakeCostly() { return m_costlyLeft-- > 0; }

    void Packet(uint16_t pid) {
        m_stream.Packet(pid, build::Bytes(kPayloadSize, 0xFF));
        Send();
    }

    // A last packet that is all tail completes the section and begins none.
    void Section(uint16_t pid, const build::Bytes& section) {
        build::Bytes tail(kPayloadSize, 0xFF);
        tail[0] = kPayloadSize - 1;
        m_stream.Section(pid, section).Packet(pid, tail, {.unitStart = true});
        Send();
    }

    // The parser keeps the last packet until it sees the start of another.
    void Settle() {
        m_stream.Null().Null();
        Send();
    }

private:
    void Send() {
        const build::Bytes packets = std::exchange(m_stream.bytes(), {});
        Require(m_filter->Push(packets));
        m_bytesFed += packets.size();
    }

    const ComPtr<FuzzFilter> m_filter = MakeObject<FuzzFilter>(StreamingMode::kRecording, kCapacity);
    build::StreamBuilder m_stream;
    size_t m_bytesFed = 0;
    int m_costlyLeft = kMaxCostly;
};

build::Bytes WholeSection(uint8_t tableId, std::span<const uint8_t> body) {
    const size_t length = body.size() + 4;
    build::Bytes section = {tableId, static_cast<uint8_t>(0xB0 | length >> 8), static_cast<uint8_t>(length)};
    section.insert(section.end(), body.begin(), body.end());
    const uint32_t crc = Mpeg2Crc32(section);
    for (int shift = 24; shift >= 0; shift -= 8)
        section.push_back(static_cast<uint8_t>(crc >> shift));
    return section;
}

void Play(Stream& stream, ByteReader& reader) {
    const uint8_t kind = reader.U8();
    switch (kind % 8) {
    case 5:
        stream.Packet(reader.U16() & 0x1FFF);
        break;
    case 6:
    case 7:
        if (!stream.TakeCostly())
            break;
        stream.Settle();
        if (kind % 8 == 6)
            stream.Filter().ReadAll(stream.BytesFed());
        else if ((kind & 0x80) != 0)
            stream.Filter().InternalReset();
        else
            FinishServices(*stream.Filter().Services());
        break;
    default: {
        const auto& table = kTables[kind % 8];
        const uint16_t head = reader.U16();
        const auto body = reader.TakeUpTo(std::min<size_t>(head & 0x0FFF, kMaxBody));
        const bool programMap = table.tableId == kProgramMapTable;
        const auto pid = static_cast<uint16_t>(table.pid + (programMap ? head >> 12 & 3 : 0));
        stream.Section(pid, WholeSection(table.tableId, body));
        break;
    }
    }
}

}  // namespace
}  // namespace tessel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    const NoObjectsLeft check;
    Stream stream;
    for (ByteReader reader({data, size}); reader.Remaining() > 0;)
        Play(stream, reader);
    stream.Settle();
    stream.Filter().ReadAll(stream.BytesFed());
    FinishServices(*stream.Filter().Services());
    return 0;
}
