#include "core/stream/PesReader.h"

#include <algorithm>

namespace tessel {

PesPart PesReader::Read(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation) {
    PesPart part;
    std::span<const uint8_t> payload = PayloadOf(packet, header, adaptation);
    if (payload.empty())
        return part;
    const int32_t counter = header.ContinuityCounter();
    if (m_counter >= 0 && !adaptation.DiscontinuityIndicator()) {
        if (counter == m_counter)
            return part;
        part.follows = counter == (m_counter + 1) % 16;
    }
    m_counter = counter;
    if (!part.follows || header.PayloadUnitStartIndicator()) {
        m_headerLeft = m_startSize = 0;
        m_beginning = header.PayloadUnitStartIndicator() &&
                      (m_headers == Headers::kSplit || payload.size() >= static_cast<size_t>(kLeastPesHeader));
    }
    if (m_beginning && !BeginUnit(payload, &part))
        return part;
    const size_t skipped = std::min(m_headerLeft, payload.size());
    m_headerLeft -= skipped;
    part.payload = payload.subspan(skipped);
    return part;
}

// False when there is no payload yet.
bool PesReader::BeginUnit(std::span<const uint8_t> payload, PesPart* part) {
    const size_t before = m_startSize;
    std::span<const uint8_t> start = payload;
    if (m_headers == Headers::kSplit) {
        const size_t more = std::min(payload.size(), kTold - before);
        std::copy_n(payload.begin(), more, m_start.begin() + before);
        m_startSize = static_cast<uint8_t>(before + more);
        start = std::span(m_start).first(m_startSize);
    }
    if (start.size() < static_cast<size_t>(kLeastPesHeader))
        return false;
    if (!IsPesStart(start)) {
        part->follows = m_beginning = false;
        m_counter = -1;
        return false;
    }
    const PesHeader header = ParsePesHeader(start);
    const auto size = static_cast<size_t>(header.size);
    if (m_headers == Headers::kSplit && start.size() < std::min(size, kTold))
        return false;
    part->begins = true;
    part->timestamp = header.timestamp;
    part->pts = ParsePts(start);
    m_beginning = false;
    m_headerLeft = size - std::min(size, before);
    return true;
}

}  // namespace tessel
