// Where packets and sections go after the tables: the outputs, and which PIDs each one wants.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/stream/PacketSink.h"
#include "platform/os/CritSec.h"

namespace tessel {

// Outputs come, go and change what they want at any time. The parsing thread works on a snapshot of
// its own, which it renews when the version has moved; an output that went meanwhile refuses what it is
// still offered.
class PacketRouter {
public:
    static constexpr size_t kMaxSinks = 16;

    PacketRouter();

    // False when the router is full.
    bool Attach(std::shared_ptr<IPacketSink> sink);
    // For a sink that its caller keeps until Detach has returned, with the parser standing still.
    bool Attach(IPacketSink* sink) {
        return Attach(std::shared_ptr<IPacketSink>(sink, [](IPacketSink*) {}));
    }
    void Detach(const IPacketSink* sink);

    // Which packets sink is offered: those of one PID, of all, of all PIDs that have a section filter.
    void Want(const IPacketSink* sink, uint32_t pid, bool wanted);
    void WantAll(const IPacketSink* sink, bool wanted);
    void WantTables(const IPacketSink* sink, bool wanted);
    void WantNothing(const IPacketSink* sink);
    // Whether sink could take a packet at all. A sink that cannot counts as refusing every one.
    void SetDeliverable(const IPacketSink* sink, bool deliverable);

    // Parsing thread: offers the packet to the sinks that want it. True when there are sinks and every one
    // of them refused it or cannot take any.
    [[gnu::always_inline]] bool OfferPacket(const uint8_t* packet, const TsHeader& header,
                                            const AdaptationFieldHeader& adaptation, bool pidHasSectionFilter) {
        if (m_version.load(std::memory_order_acquire) != m_snapshotVersion) [[unlikely]]
            RenewSnapshot();
        uint32_t offered =
            m_wanted[header.Pid()].load(std::memory_order_relaxed) | m_wantAll.load(std::memory_order_relaxed);
        if (pidHasSectionFilter)
            offered |= m_wantTables.load(std::memory_order_relaxed);
        if (offered == 0)
            return m_snapshotCount != 0 && m_deliverable.load(std::memory_order_relaxed) == 0;
        if ((offered & (offered - 1)) == 0) [[likely]] {
            PacketBatch* const batch = m_batches[static_cast<size_t>(std::countr_zero(offered))];
            if (batch != nullptr && batch->IsOpen()) [[likely]] {
                m_unflushed |= offered;
                if (batch->Add(packet, header, adaptation))
                    Flush();
                return false;
            }
        }
        return Offer(offered, packet, header, adaptation, pidHasSectionFilter);
    }
    // Parsing thread: the packets offered so far go in. Before anything that counts bytes, and before the
    // bytes move.
    void FlushPackets() {
        if (m_unflushed != 0)
            Flush();
    }
    // Parsing thread: wakes the outputs that got packets since the last call.
    void SignalDelivery();

    void OfferSection(const TsHeader& header, std::span<const uint8_t> section);

    std::vector<std::shared_ptr<IPacketSink>> Sinks();

    // What the program clocks ask of the sinks and tell them, on any thread. A sink gets no notice after
    // Detach returned.
    std::vector<int32_t> PcrPids();
    void NotifyDiscontinuity(int32_t pcrPid);
    void NotifyClockChange(const PcrClock& clock);

private:
    using Mask = std::atomic<uint16_t>;  // bit n: the sink in slot n
    using Slots = std::array<std::shared_ptr<IPacketSink>, kMaxSinks>;

    void RenewSnapshot();
    bool Offer(uint32_t offered, const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation,
               bool pidHasSectionFilter);
    void Flush();
    void Change(Mask& mask, const IPacketSink* sink, bool on);
    void ClearWants(uint32_t bit) OS_REQUIRES(m_lock);
    // The bit of a sink's slot; 0 when it is not attached.
    uint32_t BitOf(const IPacketSink* sink) const OS_REQUIRES(m_lock);

    // Changes of the masks; the parser reads each mask alone, and a packet more or less at a change is as
    // if the change had come a packet earlier or later.
    CCritSec m_lock;
    // Held during a notice, and outside m_lock while sinks come and go.
    CCritSec m_noticeLock;
    Slots m_slots;  // written under both locks, so either is enough to read
    // A sink's bits go before the version moves, so a new snapshot never meets an old sink's bits.
    std::atomic<uint32_t> m_version{0};
    std::unique_ptr<Mask[]> m_wanted;  // by PID
    Mask m_wantAll{0};
    Mask m_wantTables{0};
    Mask m_deliverable{0};

    // The parsing thread's.
    Slots m_snapshot;
    std::array<PacketBatch*, kMaxSinks> m_batches{};  // of the snapshot
    size_t m_snapshotCount = 0;
    uint32_t m_snapshotVersion = 0;
    uint32_t m_unflushed = 0;    // noted packets
    uint32_t m_unsignalled = 0;  // took packets
};

}  // namespace tessel
