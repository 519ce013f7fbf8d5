// The transport packet header and the head of the adaptation field, ISO/IEC 13818-1 clauses 2.4.3.2
// and 2.4.3.4.
#pragma once

#include <cstdint>
#include <span>

namespace tessel {

inline constexpr int32_t kTransportPacketSize = 188;
inline constexpr int32_t kTimestampedPacketSize = 192;  // 4 further bytes after each packet
inline constexpr uint8_t kSyncByte = 0x47;
inline constexpr uint32_t kPidCount = 8192;
inline constexpr uint32_t kNullPid = 0x1FFF;

struct TsHeader {
    uint32_t word = 0;  // the 4 bytes, big-endian

    uint8_t SyncByte() const { return static_cast<uint8_t>(word >> 24); }
    bool TransportErrorIndicator() const { return (word & 0x800000) != 0; }
    bool PayloadUnitStartIndicator() const { return (word & 0x400000) != 0; }
    bool TransportPriority() const { return (word & 0x200000) != 0; }
    uint32_t Pid() const { return word >> 8 & 0x1FFF; }
    uint8_t TransportScramblingControl() const { return word >> 6 & 0x03; }
    bool HasAdaptationField() const { return (word & 0x20) != 0; }
    bool HasPayload() const { return (word & 0x10) != 0; }
    uint8_t ContinuityCounter() const { return word & 0x0F; }
};

// packet: at least 4 bytes.
inline TsHeader DecodeTsHeader(const uint8_t* packet) {
    return {uint32_t{packet[0]} << 24 | uint32_t{packet[1]} << 16 | uint32_t{packet[2]} << 8 | packet[3]};
}

struct AdaptationFieldHeader {
    uint16_t word = 0;  // the first 2 bytes, big-endian; no flags when the length is 0

    uint8_t Length() const { return static_cast<uint8_t>(word >> 8); }  // adaptation_field_length
    bool DiscontinuityIndicator() const { return (word & 0x80) != 0; }
    bool RandomAccessIndicator() const { return (word & 0x40) != 0; }
    bool ElementaryStreamPriorityIndicator() const { return (word & 0x20) != 0; }
    bool PcrFlag() const { return (word & 0x10) != 0; }
    bool OpcrFlag() const { return (word & 0x08) != 0; }
    bool SplicingPointFlag() const { return (word & 0x04) != 0; }
    bool TransportPrivateDataFlag() const { return (word & 0x02) != 0; }
    bool AdaptationFieldExtensionFlag() const { return (word & 0x01) != 0; }
};

inline constexpr uint8_t kMaxAdaptationFieldLength = 183;

// packet: 188 bytes whose header says that it has an adaptation field.
inline AdaptationFieldHeader DecodeAdaptationFieldHeader(const uint8_t* packet) {
    return {static_cast<uint16_t>(packet[4] << 8 | (packet[4] != 0 ? packet[5] : 0))};
}

// Bytes before the payload. The result may lie past the packet: adaptation_field_length can be anything.
inline int32_t PayloadOffset(const TsHeader& header, const AdaptationFieldHeader& adaptation) {
    return header.HasAdaptationField() ? 4 + 1 + adaptation.Length() : 4;
}

// packet: 188 bytes. Empty when it has no payload, or no room for one.
inline std::span<const uint8_t> PayloadOf(const uint8_t* packet, const TsHeader& header,
                                          const AdaptationFieldHeader& adaptation) {
    const int32_t offset = PayloadOffset(header, adaptation);
    if (!header.HasPayload() || offset >= kTransportPacketSize)
        return {};
    return {packet + offset, static_cast<size_t>(kTransportPacketSize - offset)};
}

}  // namespace tessel
