// The PES packets of one PID, out of its transport packets, ISO/IEC 13818-1 clauses 2.4.3.3 and 2.4.3.6.
#pragma once

#include <array>
#include <span>

#include "core/stream/PesHeader.h"
#include "core/stream/TsHeader.h"

namespace tessel {

// What a transport packet holds of a PES packet.
struct PesPart {
    std::span<const uint8_t> payload;  // without the PES header
    bool begins = false;               // the PES packet begins here, or its header is whole now
    bool follows = true;               // false: packets are missing before it, or it began no PES packet
    int64_t timestamp = kNoTimestamp;  // of a beginning: see PesHeader
    int64_t pts = kNoTimestamp;        // of a beginning
};

// Takes for headers and for payload what an output of elementary streams takes for them: see CElementaryStream.
class PesReader {
public:
    enum class Headers {
        kInFirstPacket,  // as outputs have it: a shorter beginning is payload, and time stamps must be in it
        kSplit,          // they are put together
    };

    explicit PesReader(Headers headers = Headers::kInFirstPacket) : m_headers(headers) {}

    // packet: a clear one of the PID. A packet that is sent twice holds nothing the second time.
    PesPart Read(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation);

private:
    // The bytes of a header that tell all that is asked of it.
    static constexpr size_t kTold = 19;

    bool BeginUnit(std::span<const uint8_t> payload, PesPart* part);

    Headers m_headers;
    bool m_beginning = false;  // the header of a PES packet is still to be read
    uint8_t m_startSize = 0;
    std::array<uint8_t, kTold> m_start{};  // with kSplit, of the PES packet that begins
    int32_t m_counter = -1;                // continuity_counter of the last packet
    size_t m_headerLeft = 0;               // bytes of the header that are still to come
};

}  // namespace tessel
