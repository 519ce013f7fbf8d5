#include "tables/ProgramAssociationTable.h"

#include "Classes/MultiPlatform/ByteReader.h"
#include "tables/TableFactory.h"

namespace tessel {

DvbProgramAssociationTable::DvbProgramAssociationTable()
    : DvbTableObject("DvbProgramAssociationTable", kProgramAssociationTable),
      m_associations(MakeObject<DvbMapping>()) {}

HRESULT DvbProgramAssociationTable::ParseSection(uint32_t tableId, uint32_t tableIdExtension,
                                                 std::span<const uint8_t> payload) {
    if (tableId != kProgramAssociationTable || !m_associations)
        return E_FAIL;
    m_transportStreamId = tableIdExtension;

    ByteReader reader(payload);
    while (reader.Remaining() > 0) {
        // 1 to 3 trailing bytes make an entry of zeros.
        ByteReader entry(reader.TakeUpTo(4));
        uint32_t programNumber = entry.U16();
        uint32_t pid = entry.U16() & 0x1FFF;
        if (!entry.Ok())
            programNumber = pid = 0;
        const auto association = MakeObject<DvbProgramAssociation>(programNumber, pid);
        if (!association)
            return E_OUTOFMEMORY;
        const HRESULT result = m_associations->AddKeyed(static_cast<int32_t>(programNumber), association.Get());
        if (FAILED(result))
            return result;
    }
    return S_OK;
}

void DvbProgramAssociationTable::ResetTable() {
    DvbTable::ResetTable();
    if (m_associations)
        m_associations->Clear();
}

}  // namespace tessel
