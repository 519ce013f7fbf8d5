#include "tools/tessel/inspect/StreamCounter.h"

namespace tessel::tool {

StreamCounter::Counts StreamCounter::Of(uint32_t pid) const {
    const Pid& counts = m_pids[pid];
    constexpr auto relaxed = std::memory_order_relaxed;
    return {counts.packets.load(relaxed), counts.scrambled.load(relaxed), counts.lost.load(relaxed),
            counts.hasPcr.load(relaxed)};
}

void StreamCounter::Note(const uint8_t* packet) {
    const TsHeader header = DecodeTsHeader(packet);
    if (m_feed.Position() >= m_break) {
        m_break = INT64_MAX;
        for (uint32_t pid = 0; pid < kPidCount; ++pid)
            m_pids[pid].lastCounter = -1;
    }
    Add(m_packets);
    if (header.TransportErrorIndicator())
        return Add(m_damaged);
    Pid& pid = m_pids[header.Pid()];
    Add(pid.packets);
    if (header.TransportScramblingControl() != 0)
        Add(pid.scrambled);
    if (header.HasAdaptationField()) {
        const AdaptationFieldHeader adaptation = DecodeAdaptationFieldHeader(packet);
        if (adaptation.Length() > kMaxAdaptationFieldLength)
            return Add(m_damaged);
        if (adaptation.DiscontinuityIndicator())
            pid.lastCounter = -1;
        if (const auto pcr = PcrOf(packet)) {
            pid.hasPcr.store(true, std::memory_order_relaxed);
            if (m_pcrPid.value_or(header.Pid()) == header.Pid()) {
                m_pcrPid = header.Pid();
                m_lastPcr = {*pcr, m_feed.Position()};
            }
        }
    }
    // Null packets may count as they like, ISO/IEC 13818-1 clause 2.4.3.3.
    if (header.HasPayload() && header.Pid() != kNullPid)
        CheckCounter(pid, header.ContinuityCounter());
}

void StreamCounter::CheckCounter(Pid& pid, uint8_t counter) {
    const bool repeats = pid.lastCounter == counter;
    const bool follows = pid.lastCounter < 0 || ((pid.lastCounter + 1) & 0x0F) == counter;
    // A packet may be sent twice, and no more.
    if (!follows && !(repeats && !pid.repeated))
        Add(pid.lost);
    pid.repeated = repeats;
    pid.lastCounter = static_cast<int8_t>(counter);
}

}  // namespace tessel::tool
