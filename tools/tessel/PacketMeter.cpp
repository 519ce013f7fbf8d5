#include "tools/tessel/PacketMeter.h"

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel::tool {

std::optional<int64_t> PcrOf(const uint8_t* packet) {
    const TsHeader header = DecodeTsHeader(packet);
    if (!header.HasAdaptationField() || header.TransportErrorIndicator())
        return std::nullopt;
    const AdaptationFieldHeader adaptation = DecodeAdaptationFieldHeader(packet);
    if (!adaptation.PcrFlag() || adaptation.Length() < 7)
        return std::nullopt;
    ByteReader field({packet + 6, 6});
    const int64_t high = field.U32();
    const int64_t low = field.U16();
    return (high << 1 | low >> 15) * 300 + (low & 0x1FF);
}

void PacketMeter::Note(const uint8_t* packet) {
    const TsHeader header = DecodeTsHeader(packet);
    PidCounts& counts = m_pids[header.Pid()];
    m_foundPackets = true;
    if (header.TransportErrorIndicator())
        return;
    if (header.TransportScramblingControl() != 0) {
        counts.scrambled = true;
        return;
    }
    AdaptationFieldHeader adaptation;
    if (header.HasAdaptationField()) {
        adaptation = DecodeAdaptationFieldHeader(packet);
        if (adaptation.Length() > kMaxAdaptationFieldLength)
            return;
        if (const auto pcr = PcrOf(packet)) {
            counts.hasPcr = true;
            if (m_pcrPid.value_or(header.Pid()) == header.Pid()) {
                m_pcrPid = header.Pid();
                m_lastPcr = {*pcr, m_feed.Position()};
            }
        }
    }
    ++counts.packets;
    const PesPart part = m_pes[header.Pid()].Read(packet, header, adaptation);
    if (!counts.timed && part.timestamp != kNoTimestamp) {
        counts.timed = true;
        counts.beforeStart = counts.payload;
    }
    counts.payload += static_cast<int64_t>(part.payload.size());
}

}  // namespace tessel::tool
