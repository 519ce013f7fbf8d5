// The packets of a program map, and the PIDs that it names: what a stream needs in front to be read from there on.
#pragma once

#include <bitset>
#include <vector>

#include "core/stream/TsHeader.h"
#include "tables/SectionFilter.h"

namespace tessel::tool {

// A packet that is not damaged, with its payload.
struct PacketView {
    explicit PacketView(const uint8_t* bytes);

    // Damaged or scrambled: of no use to anyone.
    bool IsClear() const;

    const uint8_t* packet;
    TsHeader header;
    AdaptationFieldHeader adaptation;
    std::span<const uint8_t> payload;
};

class ProgramMapLog {
public:
    using Pids = std::bitset<kPidCount>;

    ProgramMapLog(uint32_t pid, uint32_t programNumber)
        : m_filter(static_cast<uint16_t>(pid)), m_program(programNumber) {}

    // A packet of the PID. True when it shows that the map in the packets before it is complete.
    bool Take(const PacketView& view);

    // Of all maps so far: the streams and the clock.
    const Pids& Streams() const { return m_streams; }
    // From the beginning of the last complete map up to now.
    const std::vector<uint8_t>& Packets() const { return m_packets; }

private:
    bool TakeSection(std::span<const uint8_t> section);

    SectionFilter m_filter;
    const uint32_t m_program;
    Pids m_streams;
    std::vector<uint8_t> m_packets;
    size_t m_sectionStart = 0;  // of the one that is being collected
    bool m_found = false;
};

}  // namespace tessel::tool
