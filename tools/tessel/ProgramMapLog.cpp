#include "tools/tessel/ProgramMapLog.h"

#include "Classes/MultiPlatform/ByteReader.h"
#include "tables/TableFactory.h"

namespace tessel::tool {

namespace {

// Of a program whose map has not come again for so long, nothing is kept.
constexpr size_t kMostPackets = 4096;

}  // namespace

PacketView::PacketView(const uint8_t* bytes) : packet(bytes), header(DecodeTsHeader(bytes)) {
    if (header.HasAdaptationField())
        adaptation = DecodeAdaptationFieldHeader(bytes);
    payload = PayloadOf(bytes, header, adaptation);
}

bool PacketView::IsClear() const {
    return !header.TransportErrorIndicator() && header.TransportScramblingControl() == 0 &&
           adaptation.Length() <= kMaxAdaptationFieldLength;
}

bool ProgramMapLog::Take(const PacketView& view) {
    bool complete = false;
    const bool starts = view.header.PayloadUnitStartIndicator() && !view.payload.empty();
    if (!view.payload.empty()) {
        m_filter.AssembleSection(view.payload.data(), static_cast<int32_t>(view.payload.size()), starts,
                                 view.adaptation.DiscontinuityIndicator(), view.header.ContinuityCounter());
        const auto section = m_filter.TakeCompleted();
        complete = !section.empty() && TakeSection(section);
    }
    const size_t most = kMostPackets * kTransportPacketSize;
    if (complete) {
        m_packets.erase(m_packets.begin(), m_packets.begin() + static_cast<std::ptrdiff_t>(m_sectionStart));
        m_found = true;
    } else if ((starts && !m_found) || m_packets.size() >= most) {
        m_packets.clear();
        m_found = false;
    }
    if (starts)
        m_sectionStart = m_packets.size();
    m_packets.insert(m_packets.end(), view.packet, view.packet + kTransportPacketSize);
    return complete;
}

// ISO/IEC 13818-1 clause 2.4.4.8.
bool ProgramMapLog::TakeSection(std::span<const uint8_t> section) {
    ByteReader reader(section);
    const uint32_t tableId = reader.U8();
    reader.Skip(2);
    const uint32_t program = reader.U16();
    const bool isCurrent = (reader.U8() & 1) != 0;
    reader.Skip(2);
    if (tableId != kProgramMapTable || program != m_program || !isCurrent)
        return false;
    Pids streams;
    streams.set(reader.U16() & 0x1FFF);
    reader.Skip(reader.U16() & 0xFFF);
    while (reader.Ok() && reader.Remaining() > 4) {
        reader.Skip(1);
        streams.set(reader.U16() & 0x1FFF);
        reader.Skip(reader.U16() & 0xFFF);
    }
    if (!reader.Ok())
        return false;
    streams.reset(kNullPid);
    m_streams |= streams;
    return true;
}

}  // namespace tessel::tool
