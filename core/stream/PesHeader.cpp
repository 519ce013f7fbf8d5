#include "core/stream/PesHeader.h"

namespace tessel {

namespace {

constexpr uint8_t kPrivateStream2 = 0xBF;

constexpr size_t kPts = 9;
constexpr size_t kDts = 14;
constexpr size_t kTimestampSize = 5;

bool IsElementaryStreamId(uint8_t id) {
    return (id >= 0xC0 && id <= 0xEF) || id == 0xBA || id == 0xBB || id == 0xBD || id == kPrivateStream2 || id == 0xFD;
}

// Five bytes: 4 bits, ts[32..30], marker, ts[29..15], marker, ts[14..0], marker.
int64_t DecodeTimestamp(const uint8_t* bytes) {
    return int64_t{bytes[0] >> 1 & 7} << 30 | int64_t{bytes[1]} << 22 | int64_t{bytes[2] >> 1} << 15 | bytes[3] << 7 |
           bytes[4] >> 1;
}

uint8_t StreamId(std::span<const uint8_t> bytes) {
    return bytes[0] != 0 ? bytes[0] : bytes[3];
}

}  // namespace

bool IsPesStart(std::span<const uint8_t> bytes) {
    if (bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1)
        return IsElementaryStreamId(bytes[3]);
    return bytes[3] == 0 && bytes[2] == 0 && bytes[1] == 1 && IsElementaryStreamId(bytes[0]);
}

PesHeader ParsePesHeader(std::span<const uint8_t> bytes) {
    if (StreamId(bytes) == kPrivateStream2)
        return {6, kNoTimestamp};
    PesHeader header{9 + bytes[8], kNoTimestamp};
    const uint8_t flags = bytes[7];
    if ((flags & 0x40) != 0 && bytes.size() >= kDts + kTimestampSize)
        header.timestamp = DecodeTimestamp(bytes.data() + kDts);
    else if ((flags & 0x80) != 0 && bytes.size() >= kPts + kTimestampSize)
        header.timestamp = DecodeTimestamp(bytes.data() + kPts);
    return header;
}

int64_t ParsePts(std::span<const uint8_t> bytes) {
    const bool has =
        StreamId(bytes) != kPrivateStream2 && (bytes[7] & 0x80) != 0 && bytes.size() >= kPts + kTimestampSize;
    return has ? DecodeTimestamp(bytes.data() + kPts) : kNoTimestamp;
}

}  // namespace tessel
