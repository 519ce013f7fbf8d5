#include "platform/media/MediaSample.h"

#include "platform/media/MediaResult.h"

HRESULT CMediaSample::QueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (iid == ILendableSample::kIid)
        *out = static_cast<ILendableSample*>(this);
    else if (iid == IUnknown::kIid || iid == IMediaSample::kIid)
        *out = static_cast<IMediaSample*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

ULONG CMediaSample::AddRef() {
    return static_cast<ULONG>(m_references.fetch_add(1, std::memory_order_relaxed) + 1);
}

ULONG CMediaSample::Release() {
    const int32_t left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left > 0)
        return static_cast<ULONG>(left);
    if (m_lender) {
        m_lender->TakeBack(m_block);
        m_lender = nullptr;
    }
    m_length = m_size;
    m_start.reset();
    m_end.reset();
    m_mediaStart.reset();
    m_syncPoint = m_preroll = m_discontinuity = false;
    m_type.ResetMediaType();
    m_allocator->ReleaseBuffer(this);  // which may be the end of this object
    return 0;
}

HRESULT CMediaSample::GetPointer(uint8_t** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_lender ? m_lent : m_buffer;
    return S_OK;
}

bool CMediaSample::Lend(const std::shared_ptr<ISampleMemory>& owner, void* block, uint8_t* part, LONG size) {
    const auto misplaced = reinterpret_cast<uintptr_t>(part) % static_cast<uintptr_t>(m_align) != 0;
    if (m_lender || size > m_size || m_prefix != 0 || misplaced)
        return false;
    m_lender = owner;
    m_block = block;
    m_lent = part;
    m_lentSize = m_length = size;
    return true;
}

HRESULT CMediaSample::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) {
    if (start == nullptr || end == nullptr)
        return E_POINTER;
    if (!m_start)
        return VFW_E_SAMPLE_TIME_NOT_SET;
    *start = *m_start;
    if (m_end) {
        *end = *m_end;
        return S_OK;
    }
    *end = *m_start == MAX_TIME ? MAX_TIME : *m_start + 1;
    return VFW_S_NO_STOP_TIME;
}

HRESULT CMediaSample::SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* end) {
    m_start.reset();
    m_end.reset();
    if (start == nullptr)
        return S_OK;
    m_start = *start;
    if (end != nullptr)
        m_end = *end;
    return S_OK;
}

HRESULT CMediaSample::SetActualDataLength(LONG length) {
    if (length < 0)
        return E_INVALIDARG;
    if (length > GetSize())
        return VFW_E_BUFFER_OVERFLOW;
    m_length = length;
    return S_OK;
}

HRESULT CMediaSample::GetMediaType(AM_MEDIA_TYPE** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (!m_type.IsValid())
        return S_FALSE;
    *out = CreateMediaType(&m_type);
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CMediaSample::SetMediaType(const AM_MEDIA_TYPE* type) {
    if (type != nullptr)
        return m_type.Set(*type);
    m_type.ResetMediaType();
    return S_OK;
}

HRESULT CMediaSample::GetMediaTime(int64_t* start, int64_t* end) {
    if (start == nullptr || end == nullptr)
        return E_POINTER;
    if (!m_mediaStart)
        return VFW_E_MEDIA_TIME_NOT_SET;
    *start = *m_mediaStart;
    *end = m_mediaEnd;
    return S_OK;
}

HRESULT CMediaSample::SetMediaTime(const int64_t* start, const int64_t* end) {
    if (start != nullptr && end == nullptr)
        return E_POINTER;
    m_mediaStart.reset();
    if (start == nullptr)
        return S_OK;
    m_mediaStart = *start;
    m_mediaEnd = *end;
    return S_OK;
}
