// The descriptor classes of fixed fields; those that hold items are in DescriptorItems.h.
#pragma once

#include <memory>

#include "descriptors/Descriptor.h"
#include "services/objects/SharedText.h"

namespace tessel {

// A descriptor of which only the tag is kept.
class DescGeneric final : public Descriptor<IDvbDescriptor> {
public:
    explicit DescGeneric(uint8_t descriptorTag) : Descriptor("DescGeneric", descriptorTag) {}

    HRESULT Parse(std::span<const uint8_t>) override { return S_OK; }
};

class DescVideoStream final : public Descriptor<IDvbDescVideoStream> {
public:
    DescVideoStream() : Descriptor("DescVideoStream", tag::kVideoStream) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetProfileAndLevel(uint32_t* out) override { return WriteIfAsked(out, m_profileAndLevel); }
    HRESULT GetInfo(uint32_t* multipleFrameRate, uint32_t* frameRateCode, uint32_t* mpeg1Only,
                    uint32_t* constrainedParameter, uint32_t* stillPicture, uint32_t* chromaFormat,
                    uint32_t* frameRateExtension) override;

private:
    uint32_t m_multipleFrameRate = 0;
    uint32_t m_mpeg1Only = 0;
    uint32_t m_constrainedParameter = 0;
    uint32_t m_stillPicture = 0;
    uint32_t m_frameRateExtension = 0;
    uint32_t m_profileAndLevel = 0;
    uint32_t m_frameRateCode = 0;
    uint32_t m_chromaFormat = 0;
};

// ISO/IEC 13818-1 clause 2.6.8. Parameter: kFormatIdentifier.
class DescRegistration final : public Descriptor<IDvbDescriptor> {
public:
    DescRegistration() : Descriptor("DescRegistration", tag::kRegistration) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

private:
    uint32_t m_formatIdentifier = 0;
};

class DescConditionalAccess final : public Descriptor<IDvbDescConditionalAccess> {
public:
    DescConditionalAccess() : Descriptor("DescConditionalAccess", tag::kConditionalAccess) {}

    // Only once: E_ACCESSDENIED when it has been parsed.
    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetCaSystemId(uint32_t* out) override { return WriteValue(out, m_caSystemId); }
    HRESULT GetCaPid(uint32_t* out) override { return WriteValue(out, m_caPid); }
    HRESULT GetPrivateDataLength(uint32_t* out) override { return WriteValue(out, m_privateDataLength); }
    // E_OUTOFMEMORY where there was no memory to keep the data.
    HRESULT GetPrivateData(uint8_t* buffer, uint32_t size) override;

private:
    uint32_t m_caSystemId = 0;
    uint32_t m_caPid = 8192;
    uint32_t m_privateDataLength = 0;
    std::unique_ptr<uint8_t[]> m_privateData;
};

class DescAVCVideo final : public Descriptor<IDvbDescAVCVideo> {
public:
    DescAVCVideo() : Descriptor("DescAVCVideo", tag::kAVCVideo) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetProfileLevel(uint32_t* profileIdc, uint32_t* levelIdc) override;
    HRESULT GetFlags(bool* constraintSet0, bool* constraintSet1, bool* constraintSet2, uint32_t* compatibleFlags,
                     bool* stillPresent, bool* picture24Hour) override;

private:
    bool m_constraintSet0 = false;
    bool m_constraintSet1 = false;
    bool m_constraintSet2 = false;
    bool m_stillPresent = false;
    bool m_picture24Hour = false;
    uint32_t m_profileIdc = 0;
    uint32_t m_levelIdc = 0;
    uint32_t m_compatibleFlags = 0;
};

class DescService final : public Descriptor<IDvbDescService> {
public:
    DescService() : Descriptor("DescService", tag::kService) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetServiceType(uint32_t* out) override { return WriteValue(out, m_serviceType); }
    HRESULT GetProviderName(BSTR* out) override { return out != nullptr ? m_providerName.Copy(out) : E_POINTER; }
    HRESULT GetServiceName(BSTR* out) override { return out != nullptr ? m_serviceName.Copy(out) : E_POINTER; }

private:
    uint32_t m_serviceType = 0;
    SharedText m_providerName;
    SharedText m_serviceName;
};

class DescStreamIdentifier final : public Descriptor<IDvbDescStreamIdentifier> {
public:
    DescStreamIdentifier() : Descriptor("DescStreamIdentifier", tag::kStreamIdentifier) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetComponentTag(uint32_t* out) override { return WriteIfAsked(out, m_componentTag); }

private:
    uint32_t m_componentTag = 0;
};

class DescDataBroadcast final : public Descriptor<IDvbDescDataBroadcast> {
public:
    DescDataBroadcast() : Descriptor("DescDataBroadcast", tag::kDataBroadcast) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetDataBroadcastId(uint32_t* out) override { return WriteValue(out, m_dataBroadcastId); }
    HRESULT GetComponentTag(uint32_t* out) override { return WriteValue(out, m_componentTag); }
    HRESULT GetLanguage(uint32_t* out) override { return WriteValue(out, m_language); }
    HRESULT GetText(BSTR* out) override { return out != nullptr ? m_text.Copy(out) : E_POINTER; }

private:
    uint32_t m_dataBroadcastId = 0;
    uint32_t m_componentTag = 0;
    uint32_t m_language = 0;
    SharedText m_text;
};

class DescDataBroadcastId final : public Descriptor<IDvbDescDataBroadcastId> {
public:
    DescDataBroadcastId() : Descriptor("DescDataBroadcastId", tag::kDataBroadcastId) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetDataBroadcastId(uint32_t* out) override { return WriteIfAsked(out, m_dataBroadcastId); }

private:
    uint32_t m_dataBroadcastId = 0;
};

class DescAc3 final : public Descriptor<IDvbDescAC3> {
public:
    DescAc3() : Descriptor("DescAc3", tag::kAc3) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;

    HRESULT GetComponentType(bool* present, uint32_t* componentType) override;

private:
    struct OptionalField {
        bool present = false;
        uint32_t value = 0;
    };

    OptionalField m_componentType;
    OptionalField m_bsid;
    OptionalField m_mainId;
    OptionalField m_asvc;
};

}  // namespace tessel
