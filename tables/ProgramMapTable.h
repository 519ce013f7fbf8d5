// Program map table (table_id 0x02), ISO/IEC 13818-1 clause 2.4.4.8.
#pragma once

#include "services/objects/Collections.h"
#include "tables/DvbTable.h"

namespace tessel {

class DvbProgramMapTable final : public DvbTableObject<IDvbProgramMapTable> {
public:
    DvbProgramMapTable();

    HRESULT GetProgramNumber(uint32_t* out) override { return HandOutValue(m_programNumber, out); }
    HRESULT GetPcrPid(uint32_t* out) override { return HandOutValue(m_pcrPid, out); }
    HRESULT GetDescriptors(IDvbMapping** out) override { return HandOutList(m_programDescriptors, out); }
    HRESULT GetComponents(IDvbCollection** out) override { return HandOutList(m_components, out); }

private:
    HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) override;
    void ResetTable() override;

    uint32_t m_programNumber = 0;
    uint32_t m_pcrPid = 0;
    const ComPtr<DvbMapping> m_programDescriptors;
    const ComPtr<DvbCollection> m_components;
};

}  // namespace tessel
