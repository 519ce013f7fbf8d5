#include "tables/ServiceDescriptionTable.h"

#include "descriptors/DescriptorLoop.h"
#include "tables/TableFactory.h"

namespace tessel {

DvbServiceDescription::DvbServiceDescription()
    : CUnknown("DvbServiceDescription", nullptr), m_descriptors(MakeObject<DvbMapping>()) {}

HRESULT DvbServiceDescription::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr) {
        if (iid == IDvbServiceDescription::kIid)
            return GetInterface<IDvbServiceDescription>(this, out);
        if (IsParameterInterface(iid))
            return GetInterface<IGetSetCOMParam>(this, out);
    }
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT DvbServiceDescription::ParseEntry(ByteReader& reader) {
    if (!m_descriptors)
        return E_OUTOFMEMORY;
    m_serviceId = reader.U16();
    reader.Skip(1);  // EIT flags
    const uint16_t status = reader.U16();
    m_freeCaMode = (status & 0x1000) != 0;
    const auto loop = reader.Take(status & 0x0FFF);
    if (!reader.Ok())
        return E_FAIL;
    ParseDescriptorLoop(loop, DescriptorContext::kService, *m_descriptors.Get());
    return S_OK;
}

HRESULT DvbServiceDescription::GetParam(uint32_t id, uint32_t* out) {
    if (id != param::kScrambled)
        return IGetSetCOMParamImpl::GetParam(id, out);
    return out != nullptr ? HandOutValue(m_freeCaMode ? 1u : 0u, out) : E_POINTER;
}

DvbServiceDescriptionTable::DvbServiceDescriptionTable(uint32_t tableId)
    : DvbTableObject("DvbServiceDescriptionTable", tableId),
      m_services(MakeObject<DvbMapping>()),
      m_serviceMultiMap(MakeObject<DvbMultiMapping>()) {}

HRESULT DvbServiceDescriptionTable::GetParam(uint32_t id, uint32_t* out) {
    if (id != param::kTableIdExtension)
        return IGetSetCOMParamImpl::GetParam(id, out);
    return out != nullptr ? HandOutValue(m_originalNetworkId << 16 | TableIdExtension(), out) : E_POINTER;
}

HRESULT DvbServiceDescriptionTable::ParseSection(uint32_t tableId, uint32_t tableIdExtension,
                                                 std::span<const uint8_t> payload) {
    if ((tableId != kServiceDescriptionTable && tableId != kServiceDescriptionTableOther) || !m_services)
        return E_FAIL;
    ByteReader reader(payload);
    const uint32_t originalNetworkId = reader.U16();
    reader.Skip(1);
    if (!reader.Ok())
        return E_FAIL;
    m_transportStreamId = tableIdExtension;
    m_originalNetworkId = originalNetworkId;

    while (reader.Remaining() > 0) {
        const auto service = MakeObject<DvbServiceDescription>();
        const HRESULT result = service ? service->ParseEntry(reader) : E_OUTOFMEMORY;
        if (FAILED(result))
            return result;
        // The first entry of a service_id wins.
        m_services->AddKeyed(service->Key(), static_cast<IDvbServiceDescription*>(service.Get()));
    }
    return S_OK;
}

void DvbServiceDescriptionTable::ResetTable() {
    DvbTable::ResetTable();
    if (m_services)
        m_services->Clear();
    if (m_serviceMultiMap)
        m_serviceMultiMap->Clear();
    m_transportStreamId = 0;
    m_originalNetworkId = 0;
}

}  // namespace tessel
