#include "tools/tessel/PacketMeter.h"

#include <algorithm>

#include "Classes/MultiPlatform/ByteReader.h"
#include "output/PesHeader.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

int64_t ReadPcr(std::span<const uint8_t> bytes) {
    ByteReader field(bytes);
    const int64_t high = field.U32();
    const int64_t low = field.U16();
    return (high << 1 | low >> 15) * 300 + (low & 0x1FF);
}

PacketMeter::PacketMeter() : m_pids(kPidCount) {
    if (FAILED(m_parser.CreateBuffer()))
        throw Failure("out of memory");
    m_parser.ResetPositions();
}

void PacketMeter::Push(std::span<const uint8_t> bytes) {
    const uint8_t* data = bytes.data();
    auto length = static_cast<int32_t>(bytes.size());
    while (length > 0) {
        // A parsed buffer holds at most one packet and its look-ahead, so there is room again.
        if (FAILED(m_parser.AddData(&data, &length)))
            throw Failure("out of memory");
        Parse();
    }
}

void PacketMeter::Finish() {
    // As the reader of tables has it: of very few bytes the default size holds.
    if (m_resyncPending && FAILED(m_parser.DetectPacketSize()) && m_parser.BytesReceived() > kFourPackets)
        return;
    m_resyncPending = false;
    Parse();
}

void PacketMeter::Parse() {
    if (m_resyncPending && FAILED(m_parser.DetectPacketSize()))
        return;
    m_resyncPending = false;
    m_parser.ParseData(*this);
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
        if (adaptation.length > kMaxAdaptationFieldLength)
            return;
        if (adaptation.PcrFlag() && adaptation.length >= 7) {
            counts.hasPcr = true;
            if (m_pcrPid.value_or(header.Pid()) == header.Pid()) {
                m_pcrPid = header.Pid();
                m_lastPcr = {ReadPcr({packet + 6, 6}), m_parser.StreamPosition()};
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
