#include "tools/tessel/PacketMeter.h"

#include <algorithm>

#include "Classes/MultiPlatform/ByteReader.h"
#include "core/stream/PesHeader.h"

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
    if (adaptation.DiscontinuityIndicator())
        counts.lastCounter = -1;
    const auto offset = static_cast<size_t>(PayloadOffset(header, adaptation));
    if (!header.HasPayload() || offset >= kTransportPacketSize || counts.lastCounter == header.ContinuityCounter())
        return;
    counts.lastCounter = static_cast<int8_t>(header.ContinuityCounter());
    CountPayload(counts, header, {packet + offset, kTransportPacketSize - offset});
}

void PacketMeter::CountPayload(PidCounts& counts, const TsHeader& header, std::span<const uint8_t> payload) {
    size_t skip = 0;
    if (header.PayloadUnitStartIndicator() && payload.size() >= kLeastPesHeader) {
        if (!IsPesStart(payload))
            return;
        const PesHeader pes = ParsePesHeader(payload);
        if (!counts.timed && pes.timestamp != kNoTimestamp) {
            counts.timed = true;
            counts.beforeStart = counts.payload;
        }
        skip = std::min(static_cast<size_t>(pes.size), payload.size());
    }
    counts.payload += static_cast<int64_t>(payload.size() - skip);
}

}  // namespace tessel::tool
