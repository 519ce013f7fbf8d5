#include "source/PesScanner.h"

#include <algorithm>
#include <utility>

#include "core/stream/TsHeader.h"

namespace tessel {

std::span<const uint8_t> PayloadOf(const uint8_t* packet, uint32_t pid) {
    const TsHeader header = DecodeTsHeader(packet);
    if (header.Pid() != pid || header.TransportErrorIndicator() || header.TransportScramblingControl() != 0 ||
        !header.HasPayload())
        return {};
    const AdaptationFieldHeader adaptation =
        header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{};
    const int32_t offset = PayloadOffset(header, adaptation);
    if (offset >= kTransportPacketSize)
        return {};
    return {packet + offset, static_cast<size_t>(kTransportPacketSize - offset)};
}

bool BeginsPes(const uint8_t* packet, std::span<const uint8_t> payload) {
    return DecodeTsHeader(packet).PayloadUnitStartIndicator() && payload.size() >= kLeastPesHeader &&
           IsPesStart(payload);
}

bool CPesScanner::MoveTo(int64_t position) {
    m_held = nullptr;
    return m_reader.MoveTo(position);
}

bool CPesScanner::ReadPes(int64_t limit, Depth depth, ScannedPes* out) {
    const uint8_t* packet = m_held != nullptr ? std::exchange(m_held, nullptr) : m_reader.ReadPacket();
    for (; packet != nullptr; packet = m_reader.ReadPacket()) {
        if (m_reader.Position() >= limit) {
            m_held = packet;
            return false;
        }
        if (BeginsPes(packet, PayloadOf(packet, m_pid)))
            break;
    }
    if (packet == nullptr)
        return false;

    *out = {};
    out->filePos = m_reader.Position();
    Begin(PayloadOf(packet, m_pid), out);
    while (depth == Depth::kWhole || !m_pictures.IsDecided()) {
        packet = m_reader.ReadPacket();
        if (packet == nullptr)
            break;
        const auto payload = PayloadOf(packet, m_pid);
        if (BeginsPes(packet, payload) || m_reader.Position() >= limit + kLookAhead) {
            m_held = packet;
            break;
        }
        Add(payload);
    }
    m_pictures.Finish();
    out->isAccessPoint = m_pictures.IsAccessPoint();
    out->halfPictures = m_pictures.HalfPictures();
    out->temporalReference = m_pictures.FirstTemporalReference();
    out->frameDuration = m_pictures.FrameDuration();
    return true;
}

void CPesScanner::Begin(std::span<const uint8_t> payload, ScannedPes* out) {
    const int64_t pts = ParsePts(payload);
    if (pts != kNoTimestamp)
        out->pts = pts;
    m_headerLeft = static_cast<size_t>(ParsePesHeader(payload).size);
    m_pictures.Restart();
    Add(payload);
}

void CPesScanner::Add(std::span<const uint8_t> payload) {
    const size_t skipped = std::min(m_headerLeft, payload.size());
    m_headerLeft -= skipped;
    m_pictures.Feed(payload.subspan(skipped));
}

}  // namespace tessel
