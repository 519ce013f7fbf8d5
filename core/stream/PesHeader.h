// The header of a PES packet, ISO/IEC 13818-1 clauses 2.4.3.6 and 2.4.3.7.
#pragma once

#include <cstdint>
#include <span>

namespace tessel {

inline constexpr int64_t kNoTimestamp = INT64_MIN;
inline constexpr int64_t kTimestampWrap = int64_t{1} << 33;  // time stamps have 33 bits

struct PesHeader {
    int32_t size;       // bytes before the payload; may lie past what is there
    int64_t timestamp;  // 90 kHz: the DTS, else the PTS, else kNoTimestamp
};

// Of fewer bytes a unit start cannot be told.
inline constexpr int32_t kLeastPesHeader = 13;

// bytes: at least kLeastPesHeader of them. A packet_start_code_prefix and a stream_id that elementary streams
// use; some sources write these four bytes in reversed order.
bool IsPesStart(std::span<const uint8_t> bytes);

PesHeader ParsePesHeader(std::span<const uint8_t> bytes);
// The PTS, kNoTimestamp without.
int64_t ParsePts(std::span<const uint8_t> bytes);

}  // namespace tessel
