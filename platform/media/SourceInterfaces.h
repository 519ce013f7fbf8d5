// What the sources of a graph offer: files, seeking, latency.
#pragma once

#include "platform/media/MediaType.h"
#include "platform/media/ReferenceTime.h"

inline constexpr GUID TIME_FORMAT_MEDIA_TIME = MakeGuid("{7B785574-8C82-11CF-BC0C-00AA00AC74F6}");

inline constexpr DWORD AM_SEEKING_CanSeekAbsolute = 0x01;
inline constexpr DWORD AM_SEEKING_CanSeekForwards = 0x02;
inline constexpr DWORD AM_SEEKING_CanSeekBackwards = 0x04;
inline constexpr DWORD AM_SEEKING_CanGetCurrentPos = 0x08;
inline constexpr DWORD AM_SEEKING_CanGetDuration = 0x20;

inline constexpr DWORD AM_SEEKING_NoPositioning = 0x0;
inline constexpr DWORD AM_SEEKING_AbsolutePositioning = 0x1;
inline constexpr DWORD AM_SEEKING_RelativePositioning = 0x2;
inline constexpr DWORD AM_SEEKING_PositioningBitsMask = 0x3;
inline constexpr DWORD AM_SEEKING_SeekToKeyFrame = 0x4;

class IMediaSeeking : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{36B73880-C2C8-11CF-8B46-00805F6CEF60}");

    virtual HRESULT GetCapabilities(DWORD* out) = 0;
    virtual HRESULT CheckCapabilities(DWORD* inOut) = 0;
    virtual HRESULT IsFormatSupported(const GUID* format) = 0;
    virtual HRESULT QueryPreferredFormat(GUID* out) = 0;
    virtual HRESULT GetTimeFormat(GUID* out) = 0;
    virtual HRESULT IsUsingTimeFormat(const GUID* format) = 0;
    virtual HRESULT SetTimeFormat(const GUID* format) = 0;
    virtual HRESULT GetDuration(int64_t* out) = 0;
    virtual HRESULT GetStopPosition(int64_t* out) = 0;
    virtual HRESULT GetCurrentPosition(int64_t* out) = 0;
    virtual HRESULT ConvertTimeFormat(int64_t* target, const GUID* targetFormat, int64_t source,
                                      const GUID* sourceFormat) = 0;
    virtual HRESULT SetPositions(int64_t* current, DWORD currentFlags, int64_t* stop, DWORD stopFlags) = 0;
    virtual HRESULT GetPositions(int64_t* current, int64_t* stop) = 0;
    virtual HRESULT GetAvailable(int64_t* earliest, int64_t* latest) = 0;
    virtual HRESULT SetRate(double rate) = 0;
    virtual HRESULT GetRate(double* out) = 0;
    virtual HRESULT GetPreroll(int64_t* out) = 0;

protected:
    ~IMediaSeeking() = default;
};

class IFileSourceFilter : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A868A6-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT Load(const OLECHAR* name, const AM_MEDIA_TYPE* type) = 0;
    // The name is in task memory.
    virtual HRESULT GetCurFile(OLECHAR** name, AM_MEDIA_TYPE* type) = 0;

protected:
    ~IFileSourceFilter() = default;
};

inline constexpr ULONG AM_FILTER_MISC_FLAGS_IS_RENDERER = 0x1;
inline constexpr ULONG AM_FILTER_MISC_FLAGS_IS_SOURCE = 0x2;

class IAMFilterMiscFlags : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{2DD74950-A890-11D1-ABE8-00A0C905F375}");

    virtual ULONG GetMiscFlags() = 0;

protected:
    ~IAMFilterMiscFlags() = default;
};

class IAMLatency : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{62EA93BA-EC62-11D2-B770-00C04FB6BD3D}");

    virtual HRESULT GetLatency(REFERENCE_TIME* out) = 0;

protected:
    ~IAMLatency() = default;
};

class IAMPushSource : public IAMLatency {
public:
    static constexpr IID kIid = MakeGuid("{F185FE76-E64E-11D2-B76E-00C04FB6BD3D}");

    virtual HRESULT GetPushSourceFlags(ULONG* out) = 0;
    virtual HRESULT SetPushSourceFlags(ULONG flags) = 0;
    virtual HRESULT SetStreamOffset(REFERENCE_TIME offset) = 0;
    virtual HRESULT GetStreamOffset(REFERENCE_TIME* out) = 0;
    virtual HRESULT GetMaxStreamOffset(REFERENCE_TIME* out) = 0;
    virtual HRESULT SetMaxStreamOffset(REFERENCE_TIME offset) = 0;

protected:
    ~IAMPushSource() = default;
};
