// What an output is offered, and what it is asked about its clock.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "core/stream/PcrClocks.h"
#include "core/stream/TsHeader.h"
#include "platform/com/Unknown.h"

namespace tessel {

// A packet of the input, which lies there until the parser moves on.
struct OfferedPacket {
    const uint8_t* bytes;
    TsHeader header;
    AdaptationFieldHeader adaptation;
};

// Packets that an output was offered and has not taken in yet: so it takes its lock once for many of them. The
// parsing thread's, but for the flag.
class PacketBatch {
public:
    // Whether the output takes any; any thread says so.
    void SetOpen(bool open) { m_open.store(open, std::memory_order_relaxed); }
    bool IsOpen() const { return m_open.load(std::memory_order_relaxed); }

    // True when it is full: it must be taken before the next one comes.
    bool Add(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation) {
        // One by one: as a whole it would be put together in memory first.
        OfferedPacket& noted = m_packets[m_count];
        noted.bytes = packet;
        noted.header = header;
        noted.adaptation = adaptation;
        return ++m_count == kSize;
    }
    std::span<const OfferedPacket> Take() { return {m_packets.data(), std::exchange(m_count, 0)}; }

private:
    static constexpr size_t kSize = 256;

    std::atomic<bool> m_open{false};
    size_t m_count = 0;
    std::array<OfferedPacket, kSize> m_packets;
};

// An output that is offered packets and sections, on the parsing thread.
class IPacketSink {
public:
    // packet: 188 bytes, valid until FlushPackets, which always follows. 0 taken or not wanted, else not taken.
    virtual int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                              bool pidHasSectionFilter) = 0;
    // Where packets may be put in place of DeliverPacket while it is open; null for none. FlushPackets takes them.
    virtual PacketBatch* Batch() { return nullptr; }
    virtual void FlushPackets() {}
    // No more packets come for now: whoever waits for them is to be woken.
    virtual void SignalDelivery() {}
    // section: table_id to CRC_32, valid during the call. header: of the packet that completed it.
    virtual int DeliverSection(const TsHeader& header, std::span<const uint8_t> section) = 0;
    // The PIDs whose sections the sink asks for; their section filters come back after every reset.
    virtual std::vector<uint32_t> SectionPids() const { return {}; }

    // The PID whose PCRs give the content its time; 0x1FFF or a negative value for none. Asked on any thread
    // and under locks, so it takes none.
    virtual int32_t GetPcrPid() const { return kNullPid; }
    // Notices about the clock of that PID. They come from any thread, which may hold the lock of another
    // content, so they take leaves only. mapping: null.
    virtual void NotifyDiscontinuity(int32_t, IUnknown*) {}
    // Comes for every clock; the content copies the one of its PID.
    virtual void NotifyClockChange(const PcrClock&) {}

protected:
    ~IPacketSink() = default;
};

}  // namespace tessel
