#include "core/PacketRouter.h"

#include <algorithm>
#include <bit>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"

namespace tessel {

namespace {

constexpr int32_t kClockDiscontinuity = 1;

}  // namespace

PacketRouter::PacketRouter()
    : m_lock("packet router", kRankLeaf), m_noticeLock("clock notices", kRankNotice), m_wanted(new Mask[kPidCount]()) {}

int PacketRouter::IndexOf(const IPacketSink* sink) const {
    const auto end = m_sinks.begin() + static_cast<std::ptrdiff_t>(m_count);
    const auto found = std::find(m_sinks.begin(), end, sink);
    return found == end ? -1 : static_cast<int>(found - m_sinks.begin());
}

bool PacketRouter::Attach(IPacketSink* sink) {
    CScopedLock notices(&m_noticeLock);
    CScopedLock lock(&m_lock);
    if (m_count == kMaxSinks)
        return false;
    m_sinks[m_count] = sink;
    m_deliverable.fetch_or(static_cast<uint16_t>(1u << m_count), std::memory_order_relaxed);
    ++m_count;
    return true;
}

void PacketRouter::Detach(IPacketSink* sink) {
    CScopedLock notices(&m_noticeLock);
    CScopedLock lock(&m_lock);
    const int index = IndexOf(sink);
    if (index < 0)
        return;
    std::copy(m_sinks.begin() + index + 1, m_sinks.end(), m_sinks.begin() + index);
    m_sinks.back() = nullptr;
    --m_count;
    // The sinks behind it move up by one, and so do their bits.
    const uint32_t before = (1u << index) - 1;
    const auto close = [before](Mask& mask) {
        const uint32_t bits = mask.load(std::memory_order_relaxed);
        mask.store(static_cast<uint16_t>((bits & before) | (bits >> 1 & ~before)), std::memory_order_relaxed);
    };
    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        close(m_wanted[pid]);
    close(m_wantAll);
    close(m_wantTables);
    close(m_deliverable);
}

void PacketRouter::Change(Mask& mask, const IPacketSink* sink, bool on) {
    CScopedLock lock(&m_lock);
    const int index = IndexOf(sink);
    if (index < 0)
        return;
    const uint32_t bit = 1u << index;
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

void PacketRouter::SetDeliverable(const IPacketSink* sink, bool deliverable) {
    Change(m_deliverable, sink, deliverable);
}

bool PacketRouter::Offer(uint32_t offered, const uint8_t* packet, const TsHeader& header,
                         const AdaptationFieldHeader& adaptation, bool pidHasSectionFilter) {
    uint32_t accepting = m_deliverable.load(std::memory_order_relaxed);
    for (uint32_t left = offered; left != 0; left &= left - 1) {
        const int index = std::countr_zero(left);
        if (m_sinks[static_cast<size_t>(index)]->DeliverPacket(packet, header, adaptation, pidHasSectionFilter) != 0)
            accepting &= ~(1u << index);
        else
            accepting |= 1u << index;
    }
    return accepting == 0;
}

void PacketRouter::OfferSection(const TsHeader& header, std::span<const uint8_t> section) {
    for (size_t index = 0; index < m_count; ++index)
        m_sinks[index]->DeliverSection(header, section);
}

std::vector<int32_t> PacketRouter::PcrPids() {
    std::vector<int32_t> pids;
    pids.reserve(kMaxSinks);
    CScopedLock lock(&m_lock);
    for (size_t index = 0; index < m_count; ++index)
        pids.push_back(m_sinks[index]->GetPcrPid());
    return pids;
}

void PacketRouter::NotifyDiscontinuity(int32_t pcrPid) {
    CScopedLock notices(&m_noticeLock);
    for (size_t index = 0; index < m_count; ++index)
        if (m_sinks[index]->GetPcrPid() == pcrPid)
            m_sinks[index]->NotifyDiscontinuity(kClockDiscontinuity, nullptr);
}

void PacketRouter::NotifyClockChange(const PcrClock& clock) {
    CScopedLock notices(&m_noticeLock);
    for (size_t index = 0; index < m_count; ++index)
        m_sinks[index]->NotifyClockChange(clock, 0);
}

}  // namespace tessel
