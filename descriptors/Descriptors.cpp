#include "descriptors/Descriptors.h"

#include <algorithm>
#include <new>

#include "Classes/MultiPlatform/ByteReader.h"
#include "descriptors/DvbText.h"
#include "descriptors/LanguageCode.h"

namespace tessel {

namespace {

SharedText DecodeText(std::span<const uint8_t> bytes) {
    return SharedText(DecodeDvbText(bytes.data(), static_cast<int32_t>(bytes.size())));
}

bool Bit(uint8_t byte, int number) {
    return (byte >> number & 1) != 0;
}

}  // namespace

HRESULT DescVideoStream::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    const uint8_t flags = reader.U8();
    m_multipleFrameRate = Bit(flags, 7);
    m_frameRateCode = flags >> 3 & 0xF;
    m_mpeg1Only = Bit(flags, 2);
    m_constrainedParameter = Bit(flags, 1);
    m_stillPicture = Bit(flags, 0);
    if (m_mpeg1Only != 0) {
        m_profileAndLevel = 0x4A;  // MPEG-1 pictures are decoded as main profile, low level
        m_chromaFormat = 1;        // 4:2:0
        m_frameRateExtension = 0;
    } else {
        m_profileAndLevel = reader.U8() & 0x7F;
        const uint8_t chroma = reader.U8();
        m_chromaFormat = chroma >> 6;
        m_frameRateExtension = Bit(chroma, 5);
    }
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT DescVideoStream::GetInfo(uint32_t* multipleFrameRate, uint32_t* frameRateCode, uint32_t* mpeg1Only,
                                 uint32_t* constrainedParameter, uint32_t* stillPicture, uint32_t* chromaFormat,
                                 uint32_t* frameRateExtension) {
    WriteIfAsked(multipleFrameRate, m_multipleFrameRate);
    WriteIfAsked(frameRateCode, m_frameRateCode);
    WriteIfAsked(mpeg1Only, m_mpeg1Only);
    WriteIfAsked(constrainedParameter, m_constrainedParameter);
    WriteIfAsked(stillPicture, m_stillPicture);
    WriteIfAsked(chromaFormat, m_chromaFormat);
    return WriteIfAsked(frameRateExtension, m_frameRateExtension);
}

HRESULT DescRegistration::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_formatIdentifier = reader.U32();
    return reader.Ok() ? S_OK : E_INVALIDARG;
}

HRESULT DescRegistration::GetParam(uint32_t id, uint32_t* out) {
    return id == param::kFormatIdentifier ? WriteValue(out, m_formatIdentifier)
                                          : IGetSetCOMParamImpl::GetParam(id, out);
}

HRESULT DescConditionalAccess::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    const uint16_t caSystemId = reader.U16();
    const uint16_t caPid = reader.U16();
    if (!reader.Ok())
        return E_INVALIDARG;
    if (m_privateData)
        return E_ACCESSDENIED;
    m_caSystemId = caSystemId;
    m_caPid = caPid;
    m_privateDataLength = static_cast<uint32_t>(reader.Remaining());
    m_privateData.reset(new (std::nothrow) uint8_t[reader.Remaining()]);
    if (m_privateData)
        std::ranges::copy(reader.Rest(), m_privateData.get());
    return S_OK;
}

HRESULT DescConditionalAccess::GetPrivateData(uint8_t* buffer, uint32_t size) {
    if (buffer == nullptr)
        return E_POINTER;
    if (!m_privateData)
        return m_privateDataLength == 0 ? S_OK : E_OUTOFMEMORY;
    std::copy_n(m_privateData.get(), std::min(size, m_privateDataLength), buffer);
    return S_OK;
}

HRESULT DescAVCVideo::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_profileIdc = reader.U8();
    const uint8_t constraints = reader.U8();
    m_constraintSet0 = Bit(constraints, 7);
    m_constraintSet1 = Bit(constraints, 6);
    m_constraintSet2 = Bit(constraints, 5);
    m_compatibleFlags = constraints & 0x1F;
    m_levelIdc = reader.U8();
    const uint8_t pictures = reader.U8();
    m_stillPresent = Bit(pictures, 7);
    m_picture24Hour = Bit(pictures, 6);
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT DescAVCVideo::GetProfileLevel(uint32_t* profileIdc, uint32_t* levelIdc) {
    WriteIfAsked(profileIdc, m_profileIdc);
    return WriteIfAsked(levelIdc, m_levelIdc);
}

HRESULT DescAVCVideo::GetFlags(bool* constraintSet0, bool* constraintSet1, bool* constraintSet2,
                               uint32_t* compatibleFlags, bool* stillPresent, bool* picture24Hour) {
    WriteIfAsked(constraintSet0, m_constraintSet0);
    WriteIfAsked(constraintSet1, m_constraintSet1);
    WriteIfAsked(constraintSet2, m_constraintSet2);
    WriteIfAsked(compatibleFlags, m_compatibleFlags);
    WriteIfAsked(stillPresent, m_stillPresent);
    return WriteIfAsked(picture24Hour, m_picture24Hour);
}

HRESULT DescService::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_serviceType = reader.U8();
    const auto provider = reader.Take(reader.U8());
    const auto service = reader.Take(reader.U8());
    if (!reader.Ok())
        return E_FAIL;
    m_providerName = DecodeText(provider);
    m_serviceName = DecodeText(service);
    return S_OK;
}

HRESULT DescStreamIdentifier::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_componentTag = reader.U8();
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT DescDataBroadcast::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_dataBroadcastId = reader.U16();
    m_componentTag = reader.U8();
    reader.Skip(reader.U8());  // selector
    m_language = TakeLanguage(reader);
    const auto text = reader.Take(reader.U8());
    if (!reader.Ok())
        return E_FAIL;
    m_text = DecodeText(text);
    return S_OK;
}

HRESULT DescDataBroadcastId::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    m_dataBroadcastId = reader.U16();
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT DescAc3::Parse(std::span<const uint8_t> payload) {
    ByteReader reader(payload);
    const uint8_t flags = reader.U8();
    int bit = 7;
    for (OptionalField* field : {&m_componentType, &m_bsid, &m_mainId, &m_asvc}) {
        field->present = Bit(flags, bit--);
        if (field->present)
            field->value = reader.U8();
    }
    return reader.Ok() ? S_OK : E_FAIL;
}

HRESULT DescAc3::GetComponentType(bool* present, uint32_t* componentType) {
    if (present == nullptr || componentType == nullptr)
        return E_POINTER;
    *present = m_componentType.present;
    *componentType = m_componentType.value;
    return S_OK;
}

}  // namespace tessel
