#include "tables/DvbTable.h"

#include "tables/SectionHeader.h"

namespace tessel {

HRESULT DvbTable::GetParam(uint32_t id, uint32_t* out) {
    uint32_t value = 0;
    switch (id) {
    case param::kTableId:
        value = m_tableId;
        break;
    case param::kTableIdExtension:
        value = m_tableIdExtension;
        break;
    case param::kVersionNumber:
        value = m_version;
        break;
    default:
        return IGetSetCOMParamImpl::GetParam(id, out);
    }
    if (out == nullptr)
        return E_POINTER;
    *out = value;
    return S_OK;
}

int32_t DvbTable::IsSameVersion(const uint8_t* section, int32_t length) {
    if (length < SectionHeader::kSize)
        return 1;
    const SectionHeader header = DecodeSectionHeader(section);
    if (header.tableId != m_tableId || !header.currentNextIndicator)
        return 1;
    if (!header.sectionSyntaxIndicator)
        return 0;
    return header.tableIdExtension == m_tableIdExtension && header.versionNumber == m_version ? 1 : 0;
}

HRESULT DvbTable::AddSection(const uint8_t* section, int32_t length) {
    if (length < SectionHeader::kSize)
        return E_FAIL;
    const std::span<const uint8_t> bytes(section, static_cast<size_t>(length));
    const SectionHeader header = DecodeSectionHeader(section);
    if (header.tableId != m_tableId)
        return E_FAIL;

    if (!header.sectionSyntaxIndicator) {
        const HRESULT result = ParseSection(header.tableId, 0, bytes);
        if (FAILED(result))
            return result;
        m_lastSectionNumber = 1;
        m_received.set(0);
        m_complete = true;
        return kComplete;
    }

    if (header.currentNextIndicator) {
        if (header.tableIdExtension != m_tableIdExtension || header.versionNumber != m_version) {
            ResetTable();
            m_tableIdExtension = header.tableIdExtension;
            m_version = header.versionNumber;
        }
        if (!m_received[header.sectionNumber]) {
            m_lastSectionNumber = header.lastSectionNumber;
            const HRESULT result = ParseSection(header.tableId, header.tableIdExtension, SectionPayload(bytes));
            if (FAILED(result))
                return result;
            m_received.set(header.sectionNumber);
            m_complete = AllReceived();
        }
    }
    return m_complete ? kComplete : kIncomplete;
}

bool DvbTable::AllReceived() const {
    for (size_t number = 0; number <= m_lastSectionNumber; ++number)
        if (!m_received[number])
            return false;
    return true;
}

void DvbTable::ResetTable() {
    m_received.reset();
    m_complete = false;
    m_lastSectionNumber = 0xFF;
    m_tableIdExtension = 0xFFFF;
    m_version = 0xFF;
}

}  // namespace tessel
