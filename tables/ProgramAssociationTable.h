// Program association table (table_id 0x00), ISO/IEC 13818-1 clause 2.4.4.3.
#pragma once

#include "services/objects/Collections.h"
#include "tables/DvbTable.h"

namespace tessel {

class DvbProgramAssociation final : public CIfc<IDvbProgramAssociation> {
public:
    DvbProgramAssociation(uint32_t programNumber, uint32_t pid)
        : CIfc("DvbProgramAssociation", nullptr), m_programNumber(programNumber), m_pid(pid) {}

    HRESULT GetProgramNumber(uint32_t* out) override { return HandOutValue(m_programNumber, out); }
    HRESULT GetPid(uint32_t* out) override { return HandOutValue(m_pid, out); }

private:
    const uint32_t m_programNumber;
    const uint32_t m_pid;
};

// The sections of a version accumulate; a program_number twice refuses the section it comes in.
class DvbProgramAssociationTable final : public DvbTableObject<IDvbProgramAssociationTable> {
public:
    DvbProgramAssociationTable();

    HRESULT GetTransportStreamId(uint32_t* out) override { return HandOutValue(m_transportStreamId, out); }
    HRESULT GetAssociations(IDvbMapping** out) override { return HandOutList(m_associations, out); }

private:
    HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) override;
    void ResetTable() override;

    uint32_t m_transportStreamId = 0;
    const ComPtr<DvbMapping> m_associations;
};

}  // namespace tessel
