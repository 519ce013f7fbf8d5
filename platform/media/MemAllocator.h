// The allocator of a connection: a fixed number of equal buffers.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/media/MediaSample.h"

class CMemAllocator final : public CUnknown, public IMemAllocator {
public:
    CMemAllocator() : CUnknown("CMemAllocator", nullptr) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT SetProperties(const ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override;
    HRESULT GetProperties(ALLOCATOR_PROPERTIES* out) override;
    HRESULT Commit() override;
    HRESULT Decommit() override;
    HRESULT GetBuffer(IMediaSample** out, const REFERENCE_TIME* start, const REFERENCE_TIME* end, DWORD flags) override;
    HRESULT ReleaseBuffer(IMediaSample* sample) override;

private:
    HRESULT Allocate();
    void FreeWhenUnused();

    // Guards all below. Not a CCritSec, which cannot be waited on; nothing is called out with it held.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    ALLOCATOR_PROPERTIES m_properties;
    bool m_committed = false;
    uint64_t m_decommits = 0;
    std::unique_ptr<uint8_t[]> m_memory;
    std::vector<std::unique_ptr<CMediaSample>> m_samples;
    std::vector<CMediaSample*> m_free;  // has room for all of them
};
