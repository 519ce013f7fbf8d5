#include "tables/ProgramMapTable.h"

#include <vector>

#include "Classes/MultiPlatform/ByteReader.h"
#include "descriptors/DescriptorLoop.h"
#include "tables/Component.h"
#include "tables/TableFactory.h"

namespace tessel {

DvbProgramMapTable::DvbProgramMapTable()
    : DvbTableObject("DvbProgramMapTable", kProgramMapTable),
      m_programDescriptors(MakeObject<DvbMapping>()),
      m_components(MakeObject<DvbCollection>()) {}

HRESULT DvbProgramMapTable::ParseSection(uint32_t tableId, uint32_t tableIdExtension,
                                         std::span<const uint8_t> payload) {
    if (tableId != kProgramMapTable || !m_programDescriptors || !m_components)
        return E_FAIL;
    m_programNumber = tableIdExtension;

    ByteReader reader(payload);
    const uint32_t pcrPid = reader.U16() & 0x1FFF;
    const uint16_t programInfoLength = reader.U16() & 0x0FFF;
    if (!reader.Ok())
        return E_FAIL;
    const std::span<const uint8_t> programInfo = reader.TakeUpTo(programInfoLength);

    // Components are kept only when the whole section is good: a broken one repeated for days adds nothing.
    std::vector<ComPtr<DvbComponent>> components;
    while (reader.Remaining() > 0) {
        auto component = MakeObject<DvbComponent>();
        const HRESULT result = component ? component->ParseEntry(reader) : E_OUTOFMEMORY;
        if (FAILED(result))
            return result;
        components.push_back(std::move(component));
    }

    m_pcrPid = pcrPid;
    ParseDescriptorLoop(programInfo, DescriptorContext::kGenericOnly, *m_programDescriptors.Get());
    for (const auto& component : components) {
        const HRESULT result = m_components->Add(component.Get());
        if (FAILED(result))
            return result;
    }
    return S_OK;
}

void DvbProgramMapTable::ResetTable() {
    DvbTable::ResetTable();
    if (m_programDescriptors)
        m_programDescriptors->Clear();
    if (m_components)
        m_components->Clear();
}

}  // namespace tessel
