// What an output is offered, and what it is asked about its clock.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/stream/PcrClocks.h"
#include "core/stream/TsHeader.h"
#include "platform/com/Unknown.h"

namespace tessel {

// An output that is offered packets and sections, on the parsing thread.
class IPacketSink {
public:
    // packet: 188 bytes, valid until FlushPackets, which always follows. 0 taken or not wanted, else not taken.
    virtual int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                              bool pidHasSectionFilter) = 0;
    // Takes in what DeliverPacket only noted, so that a lock is taken once for many packets.
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
    // Comes for every clock; the content copies the one of its PID. immediate: 0.
    virtual void NotifyClockChange(const PcrClock&, int32_t) {}

protected:
    ~IPacketSink() = default;
};

}  // namespace tessel
