// ATSC master guide table (table_id 0xC7), A/65 clause 6.2.
#pragma once

#include "tables/AtscTable.h"

namespace tessel {

// One table that the guide lists. Ids: kTableType, kTablePid, kTableVersion, kNumberBytes, kDescriptors.
class TableGuide final : public AtscEntry {
public:
    TableGuide() : AtscEntry("TableGuide") {}

    // E_FAIL when fewer than 12 bytes are left or the descriptors
    // run past the end.
    HRESULT ParseEntry(ByteReader& reader);
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

private:
    uint32_t m_tableType = 0;
    uint32_t m_tablePid = 0;
    uint32_t m_tableVersion = 0;
    uint32_t m_numberBytes = 0;
};

// Lists its TableGuide entries under kTableGuides.
class AtscMasterGuideTable final : public AtscTable {
public:
    AtscMasterGuideTable();

private:
    HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) override;
};

}  // namespace tessel
