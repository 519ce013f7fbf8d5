#include "descriptors/DescriptorItems.h"

#include "descriptors/LanguageCode.h"

namespace tessel {

HRESULT DescParameter::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && IsParameterInterface(iid))
        return GetInterface<IGetSetCOMParam>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT AudioCode::ParseItem(ByteReader& reader) {
    m_language = TakeLanguage(reader);
    m_audioType = reader.U8();
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT TeletextCode::ParseItem(ByteReader& reader) {
    m_language = TakeLanguage(reader);
    const uint8_t typeAndMagazine = reader.U8();
    m_teletextType = typeAndMagazine >> 3;
    m_magazineNumber = typeAndMagazine & 7;
    m_pageNumber = reader.U8();
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT Subtitle::ParseItem(ByteReader& reader) {
    m_language = TakeLanguage(reader);
    m_subtitlingType = reader.U8();
    m_compositionPageId = reader.U16();
    m_ancillaryPageId = reader.U16();
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT Subtitle::GetParam(uint32_t id, uint32_t* out) {
    switch (id) {
    case param::kLanguage:
        return WriteValue(out, m_language);
    case param::kSubtitlingType:
        return WriteValue(out, m_subtitlingType);
    case param::kCompositionPageId:
        return WriteValue(out, m_compositionPageId);
    case param::kAncillaryPageId:
        return WriteValue(out, m_ancillaryPageId);
    default:
        return IGetSetCOMParamImpl::GetParam(id, out);
    }
}

HRESULT DescSubtitling::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    while (reader.Remaining() >= Subtitle::kBytes) {
        const auto subtitle = MakeObject<Subtitle>();
        if (!m_subtitles || !subtitle)
            return E_OUTOFMEMORY;
        subtitle->ParseItem(reader);
        const HRESULT result = m_subtitles->Add(subtitle.Get());
        if (FAILED(result))
            return result;
    }
    return S_OK;
}

HRESULT DescSubtitling::GetCOMParam(uint32_t id, const IID& iid, void** out) {
    if (id != param::kSubtitles)
        return S_FALSE;
    return m_subtitles ? m_subtitles->QueryInterface(iid, out) : E_OUTOFMEMORY;
}

}  // namespace tessel
