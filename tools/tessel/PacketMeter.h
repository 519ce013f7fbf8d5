// Counts what an input holds, PID by PID, beside the filter that takes it apart: what an output should
// have delivered, and whether a stream has what it needs to start.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "core/stream/PesReader.h"
#include "tools/tessel/PacketFeed.h"

namespace tessel::tool {

// program_clock_reference, ISO/IEC 13818-1 clause 2.4.3.4, in 27 MHz; none in a packet without. packet: 188 bytes.
std::optional<int64_t> PcrOf(const uint8_t* packet);

struct PidCounts {
    int64_t packets = 0;      // clear ones
    int64_t payload = 0;      // bytes of elementary stream, without PES headers and repeated packets
    int64_t beforeStart = 0;  // those of them that came before the first time stamp
    bool scrambled = false;
    bool timed = false;  // a PES packet with a time stamp has come
    bool hasPcr = false;
};

class PacketMeter {
public:
    PacketMeter() : m_pids(kPidCount), m_pes(kPidCount) {}

    // See PacketFeed.
    void Push(std::span<const uint8_t> bytes) { m_feed.Push(bytes, *this); }
    void Finish() { m_feed.Finish(*this); }

    // pid: below 8192.
    const PidCounts& Of(uint32_t pid) const { return m_pids[pid]; }
    bool IsPresent(uint32_t pid) const { return Of(pid).packets != 0 || Of(pid).scrambled; }
    bool FoundPackets() const { return m_foundPackets; }

    // The last clock reference of the first PID that had one, and where its packet began.
    struct Pcr {
        int64_t value;  // 27 MHz
        int64_t position;
    };
    const std::optional<Pcr>& LastPcr() const { return m_lastPcr; }

private:
    friend PacketParser;
    ParserStep ParsePacket(const uint8_t* packet) { return Note(packet), ParserStep::kGoOn; }
    void Note(const uint8_t* packet);
    PacketFeed m_feed;
    bool m_foundPackets = false;
    std::optional<uint32_t> m_pcrPid;
    std::optional<Pcr> m_lastPcr;
    std::vector<PidCounts> m_pids;
    std::vector<PesReader> m_pes;
};

}  // namespace tessel::tool
