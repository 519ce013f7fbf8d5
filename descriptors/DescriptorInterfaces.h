// What clients read descriptors through; those without an interface here answer parameter ids.
//
// Getters write their values and return S_OK. Unless it says otherwise, a null out pointer gives
// E_POINTER; "null-tolerant" ones skip it, so that a caller may ask for some of the values. Strings
// are new copies that the caller frees, null where there is no text; items are new references.
// Language codes: see LanguageCode.h.
#pragma once

#include "platform/com/Bstr.h"
#include "platform/com/Unknown.h"

namespace tessel {

// Descriptor tags that have a class: ISO/IEC 13818-1 clause 2.6, EN 300 468 clause 6.2.
namespace tag {

inline constexpr uint8_t kVideoStream = 0x02;
inline constexpr uint8_t kRegistration = 0x05;
inline constexpr uint8_t kConditionalAccess = 0x09;
inline constexpr uint8_t kISO639Language = 0x0A;
inline constexpr uint8_t kAVCVideo = 0x28;
inline constexpr uint8_t kService = 0x48;
inline constexpr uint8_t kStreamIdentifier = 0x52;
inline constexpr uint8_t kTeletext = 0x56;
inline constexpr uint8_t kSubtitling = 0x59;
inline constexpr uint8_t kDataBroadcast = 0x64;
inline constexpr uint8_t kDataBroadcastId = 0x66;
inline constexpr uint8_t kAc3 = 0x6A;

}  // namespace tag

class IDvbDescriptor : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000000}");

    virtual HRESULT GetTag(uint32_t* out) = 0;  // null-tolerant
};

// ISO/IEC 13818-1 clause 2.6.2. Null-tolerant.
class IDvbDescVideoStream : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7A70136D-85D0-464D-8124-B84601CF2D4F}");

    virtual HRESULT GetProfileAndLevel(uint32_t* out) = 0;  // without the escape bit
    virtual HRESULT GetInfo(uint32_t* multipleFrameRate, uint32_t* frameRateCode, uint32_t* mpeg1Only,
                            uint32_t* constrainedParameter, uint32_t* stillPicture, uint32_t* chromaFormat,
                            uint32_t* frameRateExtension) = 0;
};

// ISO/IEC 13818-1 clause 2.6.16.
class IDvbDescConditionalAccess : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000009}");

    virtual HRESULT GetCaSystemId(uint32_t* out) = 0;
    virtual HRESULT GetCaPid(uint32_t* out) = 0;  // with the three reserved bits above the PID; 8192 when unknown
    virtual HRESULT GetPrivateDataLength(uint32_t* out) = 0;
    // Copies the lesser of size and the private data's length in bytes.
    virtual HRESULT GetPrivateData(uint8_t* buffer, uint32_t size) = 0;
};

// Null-tolerant.
class IDvbDescISO639LanguageItem : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-01000000000A}");

    virtual HRESULT GetLanguage(uint32_t* out) = 0;
    virtual HRESULT GetAudioType(uint32_t* out) = 0;
};

// ISO/IEC 13818-1 clause 2.6.18.
class IDvbDescISO639Language : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-00000000000A}");

    virtual HRESULT GetCount(uint32_t* out) = 0;  // null-tolerant
    // E_INVALIDARG, and null, for an index not below the count.
    virtual HRESULT GetItem(uint32_t index, IDvbDescISO639LanguageItem** out) = 0;
};

// ISO/IEC 13818-1 clause 2.6.64. Null-tolerant.
class IDvbDescAVCVideo : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{8661497C-3265-430C-B950-C0EE4BCF2BD2}");

    virtual HRESULT GetProfileLevel(uint32_t* profileIdc, uint32_t* levelIdc) = 0;
    virtual HRESULT GetFlags(bool* constraintSet0, bool* constraintSet1, bool* constraintSet2,
                             uint32_t* compatibleFlags, bool* stillPresent, bool* picture24Hour) = 0;
};

// EN 300 468 clause 6.2.33.
class IDvbDescService : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000048}");

    virtual HRESULT GetServiceType(uint32_t* out) = 0;
    virtual HRESULT GetProviderName(BSTR* out) = 0;
    virtual HRESULT GetServiceName(BSTR* out) = 0;
};

// EN 300 468 clause 6.2.39. Null-tolerant.
class IDvbDescStreamIdentifier : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000052}");

    virtual HRESULT GetComponentTag(uint32_t* out) = 0;
};

// Null-tolerant.
class IDvbDescTeletextItem : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-010000000056}");

    virtual HRESULT GetLanguage(uint32_t* out) = 0;
    virtual HRESULT GetTeletextType(uint32_t* out) = 0;
    virtual HRESULT GetMagazineNumber(uint32_t* out) = 0;
    virtual HRESULT GetPageNumber(uint32_t* out) = 0;  // two BCD digits as they were sent
};

// EN 300 468 clause 6.2.43.
class IDvbDescTeletext : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000056}");

    virtual HRESULT GetCount(uint32_t* out) = 0;  // null-tolerant
    // E_INVALIDARG, and null, for an index not below the count.
    virtual HRESULT GetItem(uint32_t index, IDvbDescTeletextItem** out) = 0;
};

// EN 300 468 clause 6.2.11.
class IDvbDescDataBroadcast : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000064}");

    virtual HRESULT GetDataBroadcastId(uint32_t* out) = 0;
    virtual HRESULT GetComponentTag(uint32_t* out) = 0;
    virtual HRESULT GetLanguage(uint32_t* out) = 0;
    virtual HRESULT GetText(BSTR* out) = 0;
};

// EN 300 468 clause 6.2.12. Null-tolerant.
class IDvbDescDataBroadcastId : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-000000000066}");

    virtual HRESULT GetDataBroadcastId(uint32_t* out) = 0;
};

// EN 300 468 annex D.
class IDvbDescAC3 : public IDvbDescriptor {
public:
    static constexpr IID kIid = MakeGuid("{7F104808-753D-4F40-0000-00000000006A}");

    virtual HRESULT GetComponentType(bool* present, uint32_t* componentType) = 0;
};

}  // namespace tessel
