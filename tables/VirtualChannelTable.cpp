#include "tables/VirtualChannelTable.h"

#include <new>
#include <string>

#include "tables/TableFactory.h"

namespace tessel {

namespace {

constexpr size_t kShortNameUnits = 7;

}  // namespace

HRESULT VirtualChannel::ParseEntry(ByteReader& reader) {
    std::u16string shortName;
    for (size_t i = 0; i < kShortNameUnits; ++i)
        shortName.push_back(static_cast<char16_t>(reader.U16()));
    const uint32_t channel = reader.U24();
    m_majorChannelNumber = channel >> 10 & 0x3FF;
    m_minorChannelNumber = channel & 0x3FF;
    m_modulationMode = reader.U8();
    m_carrierFrequency = reader.U32();
    m_channelTsid = reader.U16();
    m_programNumber = reader.U16();
    const uint32_t flags = reader.U16();
    m_etmLocation = flags >> 14;
    m_accessControlled = flags >> 13 & 1;
    m_hidden = flags >> 12 & 1;
    m_hideGuide = flags >> 9 & 1;
    m_serviceType = flags & 0x3F;
    m_sourceId = reader.U16();
    const uint16_t descriptorsLength = reader.U16() & 0x03FF;
    if (!reader.Ok())
        return E_FAIL;
    try {
        m_shortName = SharedText(shortName);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return ParseDescriptors(reader, descriptorsLength);
}

HRESULT VirtualChannel::GetParam(uint32_t id, uint32_t* out) {
    const struct {
        uint32_t id;
        uint32_t value;
    } fields[] = {
        {param::kMajorChannel, m_majorChannelNumber},
        {param::kMinorChannel, m_minorChannelNumber},
        {param::kModulationMode, m_modulationMode},
        {param::kCarrierFrequency, m_carrierFrequency},
        {param::kChannelTsid, m_channelTsid},
        {param::kProgramNumber, m_programNumber},
        {param::kEtmLocation, m_etmLocation},
        {param::kAccessControlled, m_accessControlled},
        {param::kHidden, m_hidden},
        {param::kHideGuide, m_hideGuide},
        {param::kServiceType, m_serviceType},
        {param::kSourceId, m_sourceId},
    };
    for (const auto& field : fields)
        if (field.id == id)
            return out != nullptr ? HandOutValue(field.value, out) : E_POINTER;
    return IGetSetCOMParamImpl::GetParam(id, out);
}

HRESULT VirtualChannel::GetStringParam(uint32_t id, BSTR* out) {
    if (id != param::kShortName)
        return S_FALSE;
    return out != nullptr ? m_shortName.Copy(out) : E_POINTER;
}

AtscVirtualChannelTable::AtscVirtualChannelTable()
    : AtscTable("AtscVirtualChannelTable", kVirtualChannelTable, param::kVirtualChannels) {}

HRESULT AtscVirtualChannelTable::ParseSection(uint32_t, uint32_t, std::span<const uint8_t> payload) {
    if (payload.size() < 3)
        return E_FAIL;
    ByteReader reader(payload);
    reader.Skip(1);  // protocol_version
    const uint32_t numChannels = reader.U8();
    return ParseEntries<VirtualChannel>(reader, numChannels);
}

}  // namespace tessel
