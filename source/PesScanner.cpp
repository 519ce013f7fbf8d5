#include "source/PesScanner.h"

#include <utility>

namespace tessel {

bool CPesFile::MoveTo(int64_t position) {
    m_pes = PesReader();
    return m_reader.MoveTo(position);
}

bool CPesFile::Next(int64_t limit) {
    m_part = {};
    const uint8_t* const packet = m_reader.ReadPacket(limit);
    if (packet == nullptr)
        return false;
    const TsHeader header = DecodeTsHeader(packet);
    if (header.Pid() == m_pid && !header.TransportErrorIndicator() && header.TransportScramblingControl() == 0)
        m_part =
            m_pes.Read(packet, header,
                       header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{});
    return true;
}

bool CPesScanner::MoveTo(int64_t position) {
    m_held = false;
    return m_file.MoveTo(position);
}

bool CPesScanner::ReadPes(int64_t limit, Depth depth, ScannedPes* out) {
    do {
        if (!std::exchange(m_held, false) && !m_file.Next(limit))
            return false;
        m_held = m_file.Position() >= limit;
        if (m_held)
            return false;
    } while (!m_file.Part().begins);

    *out = {};
    out->filePos = m_file.Position();
    if (m_file.Part().pts != kNoTimestamp)
        out->pts = m_file.Part().pts;
    m_pictures.Restart();
    m_pictures.Feed(m_file.Part().payload);
    while ((depth == Depth::kWhole || !m_pictures.IsDecided()) && m_file.Next(limit + kLookAhead)) {
        m_held = m_file.Part().begins || m_file.Position() >= limit + kLookAhead;
        if (m_held)
            break;
        m_pictures.Feed(m_file.Part().payload);
    }
    m_pictures.Finish();
    out->isAccessPoint = m_pictures.IsAccessPoint();
    out->halfPictures = m_pictures.HalfPictures();
    out->temporalReference = m_pictures.FirstTemporalReference();
    out->frameDuration = m_pictures.FrameDuration();
    return true;
}

}  // namespace tessel
