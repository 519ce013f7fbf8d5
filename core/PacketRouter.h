// Where packets and sections go after the tables: the output hooks, and which PIDs each one wants.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/stream/PcrClocks.h"
#include "core/stream/TsHeader.h"
#include "platform/com/Unknown.h"
#include "platform/os/CritSec.h"

namespace tessel {

// An output that is offered packets and sections, on the parsing thread.
class IPacketSink {
public:
    // packet: 188 bytes, valid during the call. 0 taken or not wanted, else not taken.
    virtual int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                              bool pidHasSectionFilter) = 0;
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

// Sinks are attached and detached by whoever keeps the parser still (it holds the streaming lock);
// what a sink wants may change at any time.
class PacketRouter {
public:
    static constexpr size_t kMaxSinks = 16;

    PacketRouter();

    // False when the router is full.
    bool Attach(IPacketSink* sink);
    void Detach(IPacketSink* sink);
    size_t SinkCount() const { return m_count; }
    IPacketSink* Sink(size_t index) const { return m_sinks[index]; }

    // Which packets sink is offered: those of one PID, of all, of all PIDs that have a section filter.
    void Want(const IPacketSink* sink, uint32_t pid, bool wanted);
    void WantAll(const IPacketSink* sink, bool wanted);
    void WantTables(const IPacketSink* sink, bool wanted);
    // Whether sink could take a packet at all. A sink that cannot counts as refusing every one.
    void SetDeliverable(const IPacketSink* sink, bool deliverable);

    // Offers the packet to the sinks that want it, in order of attachment. True when there are sinks and
    // every one of them refused it or cannot take any.
    bool OfferPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                     bool pidHasSectionFilter) {
        uint32_t offered =
            m_wanted[header.Pid()].load(std::memory_order_relaxed) | m_wantAll.load(std::memory_order_relaxed);
        if (pidHasSectionFilter)
            offered |= m_wantTables.load(std::memory_order_relaxed);
        if (offered == 0) [[likely]]
            return m_count != 0 && m_deliverable.load(std::memory_order_relaxed) == 0;
        return Offer(offered, packet, header, adaptation, pidHasSectionFilter);
    }

    void OfferSection(const TsHeader& header, std::span<const uint8_t> section);

    // What the program clocks ask of the sinks and tell them, in order of attachment, on any thread. A sink
    // gets no notice after Detach returned.
    std::vector<int32_t> PcrPids();
    void NotifyDiscontinuity(int32_t pcrPid);
    void NotifyClockChange(const PcrClock& clock);

private:
    using Mask = std::atomic<uint16_t>;  // bit n: sink n

    bool Offer(uint32_t offered, const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
               bool pidHasSectionFilter);
    int IndexOf(const IPacketSink* sink) const;
    void Change(Mask& mask, const IPacketSink* sink, bool on);

    // Changes of the masks; the parser reads each mask alone, and a packet more or less at a change is as
    // if the change had come a packet earlier or later.
    CCritSec m_lock;
    // Held during a notice, and outside m_lock while sinks come and go.
    CCritSec m_noticeLock;
    std::array<IPacketSink*, kMaxSinks> m_sinks{};
    size_t m_count = 0;
    std::unique_ptr<Mask[]> m_wanted;  // by PID
    Mask m_wantAll{0};
    Mask m_wantTables{0};
    Mask m_deliverable{0};
};

}  // namespace tessel
