// What clients of an MPEG-2 demultiplexer call: it makes output pins, and each of them maps PIDs.
#pragma once

#include "platform/media/GraphInterfaces.h"

enum MEDIA_SAMPLE_CONTENT : int32_t {
    MEDIA_TRANSPORT_PACKET = 0,
    MEDIA_ELEMENTARY_STREAM = 1,
    MEDIA_MPEG2_PSI = 2,
    MEDIA_TRANSPORT_PAYLOAD = 3,
};

struct PID_MAP {
    ULONG ulPID;
    MEDIA_SAMPLE_CONTENT MediaSampleContent;
};

class IMpeg2Demultiplexer : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{436EEE9C-264F-4242-90E1-4E330C107512}");

    virtual HRESULT CreateOutputPin(AM_MEDIA_TYPE* type, const OLECHAR* name, IPin** out) = 0;
    virtual HRESULT SetOutputPinMediaType(const OLECHAR* name, AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT DeleteOutputPin(const OLECHAR* name) = 0;

protected:
    ~IMpeg2Demultiplexer() = default;
};

class IEnumPIDMap : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{AFB6C2A2-2C41-11D3-8A60-0000F81E0E4A}");

    // received may be null when count is 1. S_FALSE when the list ended first.
    virtual HRESULT Next(ULONG count, PID_MAP* out, ULONG* received) = 0;
    virtual HRESULT Skip(ULONG count) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumPIDMap** out) = 0;

protected:
    ~IEnumPIDMap() = default;
};

class IMPEG2PIDMap : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{AFB6C2A1-2C41-11D3-8A60-0000F81E0E4A}");

    virtual HRESULT MapPID(ULONG count, const ULONG* pids, MEDIA_SAMPLE_CONTENT content) = 0;
    virtual HRESULT UnmapPID(ULONG count, const ULONG* pids) = 0;
    virtual HRESULT EnumPIDMap(IEnumPIDMap** out) = 0;

protected:
    ~IMPEG2PIDMap() = default;
};
