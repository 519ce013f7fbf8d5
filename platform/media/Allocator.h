// Samples of a media stream and the allocators that they come from.
#pragma once

#include "platform/com/Unknown.h"
#include "platform/media/MediaType.h"
#include "platform/media/ReferenceTime.h"

// A buffer of media data with its times and marks. Whoever holds the last reference gives it back to
// its allocator with the release. One thread at a time.
class IMediaSample : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A8689A-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT GetPointer(uint8_t** out) = 0;
    virtual LONG GetSize() = 0;
    // Without a start VFW_E_SAMPLE_TIME_NOT_SET; without an end VFW_S_NO_STOP_TIME and end = start + 1.
    virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) = 0;
    // A null start clears both.
    virtual HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* end) = 0;
    // These three: S_OK for yes, S_FALSE for no.
    virtual HRESULT IsSyncPoint() = 0;
    virtual HRESULT SetSyncPoint(BOOL set) = 0;
    virtual HRESULT IsPreroll() = 0;
    virtual HRESULT SetPreroll(BOOL set) = 0;
    virtual LONG GetActualDataLength() = 0;
    // VFW_E_BUFFER_OVERFLOW beyond the size.
    virtual HRESULT SetActualDataLength(LONG length) = 0;
    // The type that begins with this sample, for DeleteMediaType; S_FALSE and null when it did not change.
    virtual HRESULT GetMediaType(AM_MEDIA_TYPE** out) = 0;
    virtual HRESULT SetMediaType(const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT IsDiscontinuity() = 0;
    virtual HRESULT SetDiscontinuity(BOOL set) = 0;
    virtual HRESULT GetMediaTime(int64_t* start, int64_t* end) = 0;
    virtual HRESULT SetMediaTime(const int64_t* start, const int64_t* end) = 0;

protected:
    ~IMediaSample() = default;
};

struct ALLOCATOR_PROPERTIES {
    LONG cBuffers = 0;
    LONG cbBuffer = 0;
    LONG cbAlign = 0;   // a power of two
    LONG cbPrefix = 0;  // bytes in front of every buffer
};

// For GetBuffer: VFW_E_TIMEOUT instead of a wait.
inline constexpr DWORD AM_GBF_NOWAIT = 0x4;

class IMemAllocator : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A8689C-0AD4-11CE-B03A-0020AF0BA770}");

    // Only while decommitted, with all buffers back.
    virtual HRESULT SetProperties(const ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) = 0;
    virtual HRESULT GetProperties(ALLOCATOR_PROPERTIES* out) = 0;
    virtual HRESULT Commit() = 0;
    // Ends every wait in GetBuffer. The memory goes when the last buffer is back.
    virtual HRESULT Decommit() = 0;
    // Waits for a free buffer; VFW_E_NOT_COMMITTED before Commit and after Decommit.
    virtual HRESULT GetBuffer(IMediaSample** out, const REFERENCE_TIME* start, const REFERENCE_TIME* end,
                              DWORD flags) = 0;
    // Called by a sample whose last reference went.
    virtual HRESULT ReleaseBuffer(IMediaSample* sample) = 0;

protected:
    ~IMemAllocator() = default;
};
