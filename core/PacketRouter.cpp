#include "core/PacketRouter.h"

#include <algorithm>
#include <utility>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"

namespace tessel {

namespace {

constexpr int32_t kClockDiscontinuity = 1;

}  // namespace

PacketRouter::PacketRouter()
    : m_lock("packet router", kRankLeaf), m_noticeLock("clock notices", kRankNotice), m_wanted(new Mask[kPidCount]()) {}

uint32_t PacketRouter::BitOf(const IPacketSink* sink) const {
    for (size_t slot = 0; slot < kMaxSinks; ++slot)
        if (m_slots[slot].get() == sink)
            return 1u << slot;
    return 0;
}

bool PacketRouter::Attach(std::shared_ptr<IPacketSink> sink) {
    CScopedLock notices(&m_noticeLock);
    CScopedLock lock(&m_lock);
    const uint32_t bit = BitOf(nullptr);
    if (bit == 0)
        return false;
    m_slots[static_cast<size_t>(std::countr_zero(bit))] = std::move(sink);
    m_deliverable.fetch_or(static_cast<uint16_t>(bit), std::memory_order_relaxed);
    m_version.fetch_add(1, std::memory_order_release);
    return true;
}

void PacketRouter::Detach(const IPacketSink* sink) {
    std::shared_ptr<IPacketSink> last;  // goes after the locks
    CScopedLock notices(&m_noticeLock);
    CScopedLock lock(&m_lock);
    const uint32_t bit = BitOf(sink);
    if (bit == 0)
        return;
    std::swap(last, m_slots[static_cast<size_t>(std::countr_zero(bit))]);
    ClearWants(bit);
    m_deliverable.fetch_and(static_cast<uint16_t>(~bit), std::memory_order_relaxed);
    m_version.fetch_add(1, std::memory_order_release);
}

void PacketRouter::ClearWants(uint32_t bit) {
    const auto others = static_cast<uint16_t>(~bit);
    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if ((m_wanted[pid].load(std::memory_order_relaxed) & bit) != 0)
            m_wanted[pid].fetch_and(others, std::memory_order_relaxed);
    m_wantAll.fetch_and(others, std::memory_order_relaxed);
    m_wantTables.fetch_and(others, std::memory_order_relaxed);
}

void PacketRouter::Change(Mask& mask, const IPacketSink* sink, bool on) {
    CScopedLock lock(&m_lock);
    const uint32_t bit = BitOf(sink);
    const uint32_t bits = mask.load(std::memory_order_relaxed);
    mask.store(static_cast<uint16_t>(on ? bits | bit : bits & ~bit), std::memory_order_relaxed);
}

void PacketRouter::Want(const IPacketSink* sink, uint32_t pid, bool wanted) {
    if (pid < kPidCount)
        Change(m_wanted[pid], sink, wanted);
}

void PacketRouter::WantAll(const IPacketSink* sink, bool wanted) {
    Change(m_wantAll, sink, wanted);
}

void PacketRouter::WantTables(const IPacketSink* sink, bool wanted) {
    Change(m_wantTables, sink, wanted);
}

void PacketRouter::WantNothing(const IPacketSink* sink) {
    CScopedLock lock(&m_lock);
    ClearWants(BitOf(sink));
}

void PacketRouter::SetDeliverable(const IPacketSink* sink, bool deliverable) {
    Change(m_deliverable, sink, deliverable);
}

void PacketRouter::RenewSnapshot() {
    FlushPackets();
    Slots last;  // goes after the lock
    CScopedLock lock(&m_lock);
    m_snapshotVersion = m_version.load(std::memory_order_relaxed);
    last = std::exchange(m_snapshot, m_slots);
    std::transform(m_snapshot.begin(), m_snapshot.end(), m_batches.begin(),
                   [](const auto& sink) { return sink ? sink->Batch() : nullptr; });
    const auto taken = std::count_if(m_slots.begin(), m_slots.end(), [](const auto& sink) { return sink != nullptr; });
    m_snapshotCount = static_cast<size_t>(taken);
}

bool PacketRouter::Offer(uint32_t offered, const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation,
                         bool pidHasSectionFilter) {
    uint32_t accepting = m_deliverable.load(std::memory_order_relaxed);
    for (uint32_t left = offered; left != 0; left &= left - 1) {
        const int slot = std::countr_zero(left);
        IPacketSink* const sink = m_snapshot[static_cast<size_t>(slot)].get();
        if (sink == nullptr)
            continue;  // it came after the version was read
        const uint32_t bit = 1u << slot;
        if (sink->DeliverPacket(packet, header, adaptation, pidHasSectionFilter) != 0) {
            accepting &= ~bit;
        } else {
            accepting |= bit;
            m_unflushed |= bit;
        }
    }
    return accepting == 0;
}

void PacketRouter::Flush() {
    m_unsignalled |= m_unflushed;
    for (uint32_t left = std::exchange(m_unflushed, 0); left != 0; left &= left - 1)
        if (IPacketSink* const sink = m_snapshot[static_cast<size_t>(std::countr_zero(left))].get())
            sink->FlushPackets();
}

void PacketRouter::SignalDelivery() {
    FlushPackets();
    for (uint32_t left = std::exchange(m_unsignalled, 0); left != 0; left &= left - 1)
        if (IPacketSink* const sink = m_snapshot[static_cast<size_t>(std::countr_zero(left))].get())
            sink->SignalDelivery();
}

void PacketRouter::OfferSection(const TsHeader& header, std::span<const uint8_t> section) {
    if (m_version.load(std::memory_order_acquire) != m_snapshotVersion) [[unlikely]]
        RenewSnapshot();
    for (const auto& sink : m_snapshot)
        if (sink)
            sink->DeliverSection(header, section);
}

std::vector<std::shared_ptr<IPacketSink>> PacketRouter::Sinks() {
    std::vector<std::shared_ptr<IPacketSink>> sinks;
    CScopedLock lock(&m_lock);
    for (const auto& sink : m_slots)
        if (sink)
            sinks.push_back(sink);
    return sinks;
}

std::vector<int32_t> PacketRouter::PcrPids() {
    std::vector<int32_t> pids;
    pids.reserve(kMaxSinks);
    CScopedLock lock(&m_lock);
    for (const auto& sink : m_slots)
        if (sink)
            pids.push_back(sink->GetPcrPid());
    return pids;
}

void PacketRouter::NotifyDiscontinuity(int32_t pcrPid) {
    CScopedLock notices(&m_noticeLock);
    for (const auto& sink : m_slots)
        if (sink && sink->GetPcrPid() == pcrPid)
            sink->NotifyDiscontinuity(kClockDiscontinuity, nullptr);
}

void PacketRouter::NotifyClockChange(const PcrClock& clock) {
    CScopedLock notices(&m_noticeLock);
    for (const auto& sink : m_slots)
        if (sink)
            sink->NotifyClockChange(clock);
}

}  // namespace tessel
