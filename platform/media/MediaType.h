// The platform's description of what a stream holds, and the identifiers that the product uses.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/com/Unknown.h"

struct AM_MEDIA_TYPE {
    GUID majortype;
    GUID subtype;
    BOOL bFixedSizeSamples = 0;
    BOOL bTemporalCompression = 0;
    ULONG lSampleSize = 0;
    GUID formattype;
    IUnknown* pUnk = nullptr;
    ULONG cbFormat = 0;
    uint8_t* pbFormat = nullptr;
};

inline constexpr GUID MEDIATYPE_Video = MakeGuid("{73646976-0000-0010-8000-00AA00389B71}");
inline constexpr GUID MEDIATYPE_Audio = MakeGuid("{73647561-0000-0010-8000-00AA00389B71}");
inline constexpr GUID MEDIATYPE_Stream = MakeGuid("{E436EB83-524F-11CE-9F53-0020AF0BA770}");
inline constexpr GUID KSDATAFORMAT_TYPE_VBI = MakeGuid("{F72A76E1-EB0A-11D0-ACE4-0000C0CC16BA}");

inline constexpr GUID MEDIASUBTYPE_MPEG2_TRANSPORT = MakeGuid("{E06D8023-DB46-11CF-B4D1-00805F6CBBEA}");
inline constexpr GUID KSDATAFORMAT_SUBTYPE_BDA_MPEG2_TRANSPORT = MakeGuid("{F4AEB342-0329-4FDD-A8FD-4AFF4926C978}");
inline constexpr GUID MEDIASUBTYPE_MPEG1Payload = MakeGuid("{E436EB81-524F-11CE-9F53-0020AF0BA770}");
inline constexpr GUID MEDIASUBTYPE_MPEG2_VIDEO = MakeGuid("{E06D8026-DB46-11CF-B4D1-00805F6CBBEA}");
inline constexpr GUID MEDIASUBTYPE_MPEG2_AUDIO = MakeGuid("{E06D802B-DB46-11CF-B4D1-00805F6CBBEA}");
inline constexpr GUID MEDIASUBTYPE_DOLBY_AC3 = MakeGuid("{E06D802C-DB46-11CF-B4D1-00805F6CBBEA}");
inline constexpr GUID KSDATAFORMAT_SUBTYPE_TELETEXT = MakeGuid("{F72A76E3-EB0A-11D0-ACE4-0000C0CC16BA}");

// Subtypes that the platform does not name.
inline constexpr GUID MEDIASUBTYPE_MPEG4_VIDEO = MakeGuid("{E7D5085C-3752-4E4C-8CB2-A9086A4BD273}");
inline constexpr GUID MEDIASUBTYPE_AVC_VIDEO = MakeGuid("{FCA6C675-B44B-420D-AA88-4B1F064F2D56}");
inline constexpr GUID MEDIASUBTYPE_AAC_AUDIO = MakeGuid("{2476CBD2-51B6-4593-B26F-637D90378FCA}");
inline constexpr GUID MEDIASUBTYPE_DVB_SUBTITLE = MakeGuid("{F8D9A891-201F-472C-B780-3F1E36AC4643}");

inline constexpr GUID FORMAT_None = MakeGuid("{0F6417D6-C318-11D0-A43F-00A0C9223196}");

// An AM_MEDIA_TYPE owns its format block, which lies in task memory, and one reference to pUnk. A plain
// copy of the structure does not own them.

// Makes target a copy, whatever it holds before. On E_OUTOFMEMORY it is empty.
HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source);
// Frees what type owns and forgets it.
void FreeMediaType(AM_MEDIA_TYPE& type);
// A copy in task memory; null when out of memory.
AM_MEDIA_TYPE* CreateMediaType(const AM_MEDIA_TYPE* source);
void DeleteMediaType(AM_MEDIA_TYPE* type);

// Major type, subtype, format type and format block are the same.
bool operator==(const AM_MEDIA_TYPE& a, const AM_MEDIA_TYPE& b);
// Does type agree with what partial says, which may leave fields at GUID_NULL open?
bool MatchesPartial(const AM_MEDIA_TYPE& type, const AM_MEDIA_TYPE& partial);

class CMediaType : public AM_MEDIA_TYPE {
public:
    CMediaType() = default;
    CMediaType(CMediaType&& other) noexcept : AM_MEDIA_TYPE(std::exchange(other.Plain(), AM_MEDIA_TYPE{})) {}
    CMediaType& operator=(CMediaType&& other) noexcept {
        std::swap(Plain(), other.Plain());
        return *this;
    }
    ~CMediaType() { FreeMediaType(*this); }

    // The copy that may fail: E_OUTOFMEMORY, and the type is empty.
    HRESULT Set(const AM_MEDIA_TYPE& source);
    void ResetMediaType() { FreeMediaType(*this), Plain() = AM_MEDIA_TYPE{}; }
    HRESULT SetFormat(const uint8_t* format, ULONG length);

    bool IsValid() const { return majortype != GUID_NULL; }
    // Major type or format type are open.
    bool IsPartiallySpecified() const { return majortype == GUID_NULL || formattype == GUID_NULL; }

private:
    AM_MEDIA_TYPE& Plain() { return *this; }
};
