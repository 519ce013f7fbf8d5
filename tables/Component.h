// One elementary stream of a program map table, ISO/IEC 13818-1 clause 2.4.4.8.
#pragma once

#include "Classes/MultiPlatform/ByteReader.h"
#include "services/objects/Collections.h"
#include "services/objects/TableInterfaces.h"

namespace tessel {

class DvbComponent final : public CIfc<IDvbComponentEx> {
public:
    DvbComponent();

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Reads one entry. E_FAIL when fewer than 5 bytes are left. An ES_info loop that runs past the end
    // keeps the descriptors that fit.
    HRESULT ParseEntry(ByteReader& reader);

    HRESULT GetPid(uint32_t* out) override;
    HRESULT GetStreamType(uint32_t* out) override;
    HRESULT GetDescriptors(IDvbMapping** out) override;
    HRESULT GetMediaType(AM_MEDIA_TYPE* out) override;
    HRESULT GetLanguage(uint32_t* out) override;
    HRESULT IsScrambled() override { return m_scrambled ? S_OK : S_FALSE; }

private:
    bool HasDescriptor(int32_t tag) const { return m_descriptors && m_descriptors->Contains(tag); }

    uint32_t m_streamType = 0;
    uint16_t m_elementaryPid = 0;
    bool m_scrambled = false;  // the ES_info loop holds a CA_descriptor, well-formed or not
    const ComPtr<DvbMapping> m_descriptors;
};

}  // namespace tessel
