#include "tables/SectionFilter.h"

#include <cstring>
#include <new>

#include "tables/Crc32.h"

namespace tessel {

namespace {

constexpr int32_t kCollectionLimit = 4096;
constexpr size_t kBufferStep = 1024;
constexpr uint8_t kStuffingTable = 0x72;
constexpr uint8_t kDiscontinuityInformationTable = 0x71;  // EN 300 468: no CRC in the short form

bool Grow(std::vector<uint8_t>& buffer, size_t needed) {
    if (needed <= buffer.size())
        return true;
    try {
        buffer.resize((needed + kBufferStep - 1) / kBufferStep * kBufferStep);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// Tables that belong on one PID, and in the long form: ISO/IEC 13818-1 table 2-31, EN 300 468 table 1.
bool IsPlausible(uint8_t tableId, bool sectionSyntaxIndicator, uint16_t pid) {
    switch (tableId) {
    case 0x00:
        return pid == 0x0000 && sectionSyntaxIndicator;
    case 0x01:
        return pid == 0x0001 && sectionSyntaxIndicator;
    case 0x02:
        return sectionSyntaxIndicator;
    case 0x40:
    case 0x41:
        return pid == 0x0010 && sectionSyntaxIndicator;
    case 0x42:
    case 0x46:
    case 0x4A:
        return pid == 0x0011 && sectionSyntaxIndicator;
    case 0x4E:
    case 0x4F:
        return pid == 0x0012 && sectionSyntaxIndicator;
    default:
        return true;
    }
}

bool CrcMatches(std::span<const uint8_t> section) {
    // section_length below 4 leaves no room for a CRC behind the three header bytes.
    return section.size() >= 3 + 4 && Mpeg2Crc32(section) == 0;
}

}  // namespace

SectionFilter::SectionFilter(uint16_t pid) : m_pid(pid), m_assemblyData(2 * kBufferStep) {}

std::span<const uint8_t> SectionFilter::TakeCompleted() {
    if (!m_sectionReady)
        return {};
    m_sectionReady = false;
    return {m_completedData.data(), static_cast<size_t>(m_completedLength)};
}

bool SectionFilter::Append(std::span<const uint8_t> bytes) {
    const auto used = static_cast<size_t>(m_assembledLength);
    if (!Grow(m_assemblyData, used + bytes.size())) {
        m_assembledLength = 0;
        return false;
    }
    std::memcpy(m_assemblyData.data() + used, bytes.data(), bytes.size());
    m_assembledLength += static_cast<int32_t>(bytes.size());
    return true;
}

HRESULT SectionFilter::AssembleSection(const uint8_t* payload, int32_t length, bool payloadUnitStart,
                                       bool discontinuity, uint8_t continuityCounter) {
    if (length < 1)
        return E_FAIL;
    const std::span<const uint8_t> bytes(payload, static_cast<size_t>(length));

    if (m_assembledLength != 0) {
        if (continuityCounter == m_lastContinuityCounter)
            return S_OK;  // duplicate packet
        const int32_t expected = discontinuity ? continuityCounter : (m_lastContinuityCounter + 1) & 0x0F;
        if (continuityCounter != expected) {
            m_assembledLength = 0;
            return S_OK;
        }
        m_lastContinuityCounter = continuityCounter;
        if (!payloadUnitStart) {
            if (m_assembledLength >= kCollectionLimit)
                m_assembledLength = 0;
            else
                Append(bytes);
            return S_OK;
        }
    } else if (!payloadUnitStart) {
        return S_OK;
    }

    const size_t pointerField = bytes[0];
    if (pointerField > bytes.size() - 1) {
        if (m_assembledLength == 0)
            m_lastContinuityCounter = continuityCounter;
        return E_FAIL;
    }
    if (m_assembledLength != 0 && !FinishSection(bytes.subspan(1, pointerField)))
        return S_OK;
    StartSection(bytes.subspan(1 + pointerField), continuityCounter);
    return S_OK;
}

bool SectionFilter::FinishSection(std::span<const uint8_t> tail) {
    if (!Append(tail))
        return false;
    const int32_t collected = m_assembledLength;
    m_assembledLength = 0;
    if (collected < 3)
        return false;

    const uint8_t* data = m_assemblyData.data();
    const uint8_t tableId = data[0];
    const bool sectionSyntaxIndicator = (data[1] & 0x80) != 0;
    const int32_t total = ((data[1] & 0x0F) << 8 | data[2]) + 3;
    if (total > collected || tableId == kStuffingTable || !IsPlausible(tableId, sectionSyntaxIndicator, m_pid))
        return false;

    const std::span<const uint8_t> section(data, static_cast<size_t>(total));
    if (sectionSyntaxIndicator && tableId != kDiscontinuityInformationTable && !CrcMatches(section))
        return true;
    if (Grow(m_completedData, section.size())) {
        std::memcpy(m_completedData.data(), section.data(), section.size());
        m_completedLength = total;
        m_sectionReady = true;
    }
    return true;
}

void SectionFilter::StartSection(std::span<const uint8_t> head, uint8_t continuityCounter) {
    m_lastContinuityCounter = continuityCounter;
    Append(head);
}

}  // namespace tessel
