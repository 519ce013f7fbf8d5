#include "platform/media/BaseInputPin.h"

#include <new>

#include "platform/media/MediaResult.h"
#include "platform/media/MemAllocator.h"

HRESULT CBaseInputPin::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IMemInputPin::kIid)
        return GetInterface<IMemInputPin>(this, out);
    return CBasePin::NonDelegatingQueryInterface(iid, out);
}

HRESULT CBaseInputPin::BeginFlush() {
    m_flushing = true;
    return S_OK;
}

HRESULT CBaseInputPin::EndFlush() {
    m_flushing = false;
    m_runTimeError = false;
    return S_OK;
}

HRESULT CBaseInputPin::GetAllocator(IMemAllocator** out) {
    if (out == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_connection);
    if (!m_allocator)
        m_allocator = ComPtr<IMemAllocator>(new (std::nothrow) CMemAllocator());
    *out = ComPtr<IMemAllocator>(m_allocator).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBaseInputPin::NotifyAllocator(IMemAllocator* allocator, BOOL) {
    if (allocator == nullptr)
        return E_POINTER;
    ComPtr<IMemAllocator> other(allocator);
    const CAutoLock lock(&m_connection);
    std::swap(m_allocator, other);
    return S_OK;
}

HRESULT CBaseInputPin::Receive(IMediaSample* sample) {
    if (sample == nullptr)
        return E_POINTER;
    HRESULT result = CheckStreaming();
    if (result != S_OK)
        return result;
    AM_MEDIA_TYPE* next = nullptr;
    if (sample->GetMediaType(&next) != S_OK)
        return S_OK;
    const std::unique_ptr<AM_MEDIA_TYPE, void (*)(AM_MEDIA_TYPE*)> type(next, DeleteMediaType);
    if (CheckMediaType(type.get()) == S_OK)
        return SetMediaType(type.get());
    m_runTimeError = true;
    EndOfStream();
    m_filter->NotifyEvent(EC_ERRORABORT, VFW_E_TYPE_NOT_ACCEPTED, 0);
    return VFW_E_INVALIDMEDIATYPE;
}

HRESULT CBaseInputPin::ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) {
    if (samples == nullptr || processed == nullptr)
        return E_POINTER;
    HRESULT result = S_OK;
    for (*processed = 0; *processed < count; ++*processed) {
        result = Receive(samples[*processed]);
        if (result != S_OK)
            break;
    }
    return result;
}

HRESULT CBaseInputPin::BreakConnect() {
    ComPtr<IMemAllocator> allocator;
    {
        const CAutoLock lock(&m_connection);
        std::swap(m_allocator, allocator);
    }
    if (allocator)
        allocator->Decommit();
    return S_OK;
}

HRESULT CBaseInputPin::Inactive() {
    m_runTimeError = false;
    m_flushing = false;
    ComPtr<IMemAllocator> allocator;
    {
        const CAutoLock lock(&m_connection);
        allocator = m_allocator;
    }
    // Whoever waits for a buffer to send here must not wait for ever.
    return allocator ? allocator->Decommit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseInputPin::CheckStreaming() {
    if (!IsConnected())
        return VFW_E_NOT_CONNECTED;
    if (m_filter->IsStopped())
        return VFW_E_WRONG_STATE;
    if (m_flushing)
        return S_FALSE;
    return m_runTimeError ? VFW_E_RUNTIME_ERROR : S_OK;
}
