// The platform's description of what a stream holds, and the identifiers that the product uses.
#pragma once

#include <cstdint>

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
