// Service description table of the actual transport stream (table_id 0x42), EN 300 468 clause 5.2.3.
#pragma once

#include "Classes/MultiPlatform/ByteReader.h"
#include "services/objects/Collections.h"
#include "tables/DvbTable.h"

namespace tessel {

// Answers parameter kScrambled with free_CA_mode.
class DvbServiceDescription final : public CUnknown, public IDvbServiceDescription, public IGetSetCOMParamImpl {
public:
    DvbServiceDescription();

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Reads one entry. E_FAIL when fewer than 5 bytes are left or the descriptor loop runs past the end.
    HRESULT ParseEntry(ByteReader& reader);

    HRESULT GetServiceId(uint32_t* out) override { return HandOutValue(m_serviceId, out); }
    HRESULT GetDescriptors(IDvbMapping** out) override { return HandOutList(m_descriptors, out); }
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

    int32_t Key() const { return static_cast<int32_t>(m_serviceId); }

private:
    uint32_t m_serviceId = 0;
    bool m_freeCaMode = false;
    const ComPtr<DvbMapping> m_descriptors;
};

class DvbServiceDescriptionTable final : public DvbTableObject<IDvbServiceDescriptionTable> {
public:
    explicit DvbServiceDescriptionTable(uint32_t tableId);

    HRESULT GetTransportStreamId(uint32_t* out) override { return HandOutValue(m_transportStreamId, out); }
    HRESULT GetOriginalNetworkId(uint32_t* out) override { return HandOutValue(m_originalNetworkId, out); }
    HRESULT GetServiceDescriptions(IDvbMapping** out) override { return HandOutList(m_services, out); }
    HRESULT GetServiceMultiMap(IDvbMapping** out) override { return HandOutList(m_serviceMultiMap, out); }

    // Id: kTableIdExtension, the whole key original_network_id << 16 | transport_stream_id.
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

private:
    HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) override;
    void ResetTable() override;

    uint32_t m_transportStreamId = 0;
    uint32_t m_originalNetworkId = 0;
    const ComPtr<DvbMapping> m_services;
    const ComPtr<DvbMultiMapping> m_serviceMultiMap;
};

}  // namespace tessel
