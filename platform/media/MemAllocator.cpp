#include "platform/media/MemAllocator.h"

#include <exception>
#include <new>

#include "platform/com/ComPtr.h"
#include "platform/media/MediaResult.h"

namespace {

constexpr int64_t kMaxAlign = 1 << 16;

int64_t RoundUp(int64_t value, int64_t align) {
    return (value + align - 1) / align * align;
}

}  // namespace

HRESULT CMemAllocator::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IMemAllocator::kIid)
        return GetInterface<IMemAllocator>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CMemAllocator::SetProperties(const ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) {
    if (request == nullptr || actual == nullptr)
        return E_POINTER;
    if (request->cBuffers < 0 || request->cbBuffer < 0 || request->cbPrefix < 0)
        return E_INVALIDARG;
    if (request->cbAlign <= 0 || (request->cbAlign & (request->cbAlign - 1)) != 0 || request->cbAlign > kMaxAlign)
        return VFW_E_BADALIGN;
    const std::lock_guard lock(m_mutex);
    if (m_committed)
        return VFW_E_ALREADY_COMMITTED;
    if (!m_samples.empty())
        return VFW_E_BUFFERS_OUTSTANDING;
    m_properties = *actual = *request;
    return S_OK;
}

HRESULT CMemAllocator::GetProperties(ALLOCATOR_PROPERTIES* out) {
    if (out == nullptr)
        return E_POINTER;
    const std::lock_guard lock(m_mutex);
    *out = m_properties;
    return S_OK;
}

HRESULT CMemAllocator::Commit() {
    const std::lock_guard lock(m_mutex);
    if (m_committed)
        return S_OK;
    if (m_properties.cBuffers == 0 || m_properties.cbBuffer == 0)
        return VFW_E_SIZENOTSET;
    // Buffers that are still out from before are taken on again as they come back.
    if (m_samples.empty()) {
        const HRESULT result = Allocate();
        if (FAILED(result))
            return result;
    }
    m_committed = true;
    return S_OK;
}

HRESULT CMemAllocator::Allocate() {
    const int64_t align = m_properties.cbAlign;
    const int64_t prefix = RoundUp(m_properties.cbPrefix, align);
    const int64_t stride = RoundUp(prefix + m_properties.cbBuffer, align);
    int64_t total = 0;
    if (__builtin_mul_overflow(stride, int64_t{m_properties.cBuffers}, &total))
        return E_OUTOFMEMORY;
    try {
        std::unique_ptr<uint8_t[]> memory(new uint8_t[static_cast<size_t>(total + align)]);
        const auto address = static_cast<int64_t>(reinterpret_cast<uintptr_t>(memory.get()));
        uint8_t* buffer = memory.get() + (RoundUp(address, align) - address) + prefix;
        std::vector<std::unique_ptr<CMediaSample>> samples;
        std::vector<CMediaSample*> free;
        free.reserve(static_cast<size_t>(m_properties.cBuffers));
        for (LONG i = 0; i < m_properties.cBuffers; ++i, buffer += stride) {
            samples.push_back(std::make_unique<CMediaSample>(this, buffer, m_properties.cbBuffer, m_properties.cbAlign,
                                                             m_properties.cbPrefix));
            free.push_back(samples.back().get());
        }
        m_memory = std::move(memory);
        m_samples = std::move(samples);
        m_free = std::move(free);
    } catch (const std::exception&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CMemAllocator::Decommit() {
    const std::lock_guard lock(m_mutex);
    m_committed = false;
    ++m_decommits;
    m_changed.notify_all();
    FreeWhenUnused();
    return S_OK;
}

void CMemAllocator::FreeWhenUnused() {
    if (m_committed || m_free.size() != m_samples.size())
        return;
    m_free.clear();
    m_samples.clear();
    m_memory.reset();
}

HRESULT CMemAllocator::GetBuffer(IMediaSample** out, const REFERENCE_TIME*, const REFERENCE_TIME*, DWORD flags) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    std::unique_lock lock(m_mutex);
    if (!m_committed)
        return VFW_E_NOT_COMMITTED;
    if (m_free.empty()) {
        if ((flags & AM_GBF_NOWAIT) != 0)
            return VFW_E_TIMEOUT;
        // Counted, so that a Commit right after a Decommit does not catch the waiter again.
        const uint64_t decommits = m_decommits;
        m_changed.wait(lock, [&] { return m_decommits != decommits || !m_free.empty(); });
        if (m_decommits != decommits)
            return VFW_E_NOT_COMMITTED;
    }
    CMediaSample* sample = m_free.back();
    m_free.pop_back();
    sample->AddRef();
    AddRef();  // the sample's reference: ReleaseBuffer gives it back
    *out = sample;
    return S_OK;
}

HRESULT CMemAllocator::ReleaseBuffer(IMediaSample* sample) {
    // Takes over the sample's reference, and drops it after the lock.
    ComPtr<IMemAllocator> self;
    *self.Put() = this;
    const std::lock_guard lock(m_mutex);
    m_free.push_back(static_cast<CMediaSample*>(sample));
    m_changed.notify_one();
    FreeWhenUnused();
    return S_OK;
}
