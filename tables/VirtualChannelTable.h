// ATSC terrestrial virtual channel table (table_id 0xC8), A/65 clause 6.3.
#pragma once

#include "services/objects/SharedText.h"
#include "tables/AtscTable.h"

namespace tessel {

// One channel. Ids: kMajorChannel to kHideGuide, kServiceType, kSourceId, kDescriptors, and the text
// kShortName.
class VirtualChannel final : public AtscEntry {
public:
    VirtualChannel() : AtscEntry("VirtualChannel") {}

    // E_FAIL when fewer than 32 bytes are left or the descriptors run past the end.
    HRESULT ParseEntry(ByteReader& reader);
    HRESULT GetParam(uint32_t id, uint32_t* out) override;
    HRESULT GetStringParam(uint32_t id, BSTR* out) override;

private:
    SharedText m_shortName;
    uint32_t m_majorChannelNumber = 0;
    uint32_t m_minorChannelNumber = 0;
    uint32_t m_modulationMode = 0;
    uint32_t m_carrierFrequency = 0;
    uint32_t m_channelTsid = 0;
    uint32_t m_programNumber = 0;
    uint32_t m_etmLocation = 0;
    uint32_t m_accessControlled = 0;
    uint32_t m_hidden = 0;
    uint32_t m_hideGuide = 0;
    uint32_t m_serviceType = 0;
    uint32_t m_sourceId = 0;
};

// Lists its VirtualChannel entries under kVirtualChannels.
class AtscVirtualChannelTable final : public AtscTable {
public:
    AtscVirtualChannelTable();

private:
    HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) override;
};

}  // namespace tessel
