#include "tables/Component.h"

#include "descriptors/DescriptorInterfaces.h"
#include "descriptors/DescriptorLoop.h"
#include "tables/DvbTable.h"

namespace tessel {

namespace {

constexpr uint32_t kPrivatePes = 0x06;

struct MediaTypeRow {
    uint32_t streamType;
    int32_t tag;  // for private PES: the descriptor that says what it carries
    const GUID& majortype;
    const GUID& subtype;
};

// For private PES the first row whose descriptor is there counts.
constexpr MediaTypeRow kMediaTypes[] = {
    {0x01, 0, MEDIATYPE_Video, MEDIASUBTYPE_MPEG1Payload},
    {0x02, 0, MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO},
    {0x10, 0, MEDIATYPE_Video, MEDIASUBTYPE_MPEG4_VIDEO},
    {0x1B, 0, MEDIATYPE_Video, MEDIASUBTYPE_AVC_VIDEO},
    {0x03, 0, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload},
    {0x04, 0, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG2_AUDIO},
    {0x0F, 0, MEDIATYPE_Audio, MEDIASUBTYPE_AAC_AUDIO},
    {0x81, 0, MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3},
    {kPrivatePes, tag::kAc3, MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3},
    {kPrivatePes, tag::kTeletext, KSDATAFORMAT_TYPE_VBI, KSDATAFORMAT_SUBTYPE_TELETEXT},
    {kPrivatePes, tag::kSubtitling, MEDIATYPE_Stream, MEDIASUBTYPE_DVB_SUBTITLE},
};

}  // namespace

DvbComponent::DvbComponent() : CIfc("DvbComponent", nullptr), m_descriptors(MakeObject<DvbMapping>()) {}

HRESULT DvbComponent::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IDvbComponent::kIid)
        return GetInterface<IDvbComponent>(this, out);
    return CIfc::NonDelegatingQueryInterface(iid, out);
}

HRESULT DvbComponent::ParseEntry(ByteReader& reader) {
    if (!m_descriptors)
        return E_OUTOFMEMORY;
    m_streamType = reader.U8();
    m_elementaryPid = reader.U16() & 0x1FFF;
    const uint16_t esInfoLength = reader.U16() & 0x0FFF;
    if (!reader.Ok())
        return E_FAIL;
    const auto loop =
        ParseDescriptorLoop(reader.TakeUpTo(esInfoLength), DescriptorContext::kComponent, *m_descriptors.Get());
    m_scrambled = loop.sawConditionalAccess;
    return S_OK;
}

HRESULT DvbComponent::GetPid(uint32_t* out) {
    return HandOutValue(m_elementaryPid, out);
}

HRESULT DvbComponent::GetStreamType(uint32_t* out) {
    return HandOutValue(m_streamType, out);
}

HRESULT DvbComponent::GetDescriptors(IDvbMapping** out) {
    return HandOutList(m_descriptors, out);
}

HRESULT DvbComponent::GetMediaType(AM_MEDIA_TYPE* out) {
    for (const MediaTypeRow& row : kMediaTypes) {
        if (row.streamType != m_streamType || (row.tag != 0 && !HasDescriptor(row.tag)))
            continue;
        *out = AM_MEDIA_TYPE{};
        out->majortype = row.majortype;
        out->subtype = row.subtype;
        out->bFixedSizeSamples = 1;
        out->bTemporalCompression = row.majortype == MEDIATYPE_Video ? 1 : 0;
        out->lSampleSize = 1;
        out->formattype = FORMAT_None;
        return S_OK;
    }
    return E_NOTIMPL;
}

HRESULT DvbComponent::GetLanguage(uint32_t* out) {
    *out = 0;
    if (!HasDescriptor(tag::kISO639Language))
        return S_OK;
    const auto languages = LookupAs<IDvbDescISO639Language>(m_descriptors.Get(), tag::kISO639Language);
    if (!languages)
        return E_POINTER;
    ComPtr<IDvbDescISO639LanguageItem> first;
    if (SUCCEEDED(languages->GetItem(0, first.Put())))
        first->GetLanguage(out);
    return S_OK;
}

}  // namespace tessel
