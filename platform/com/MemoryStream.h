// A stream over a block of memory that grows as it is written.
#pragma once

#include <span>
#include <vector>

#include "platform/com/Stream.h"

// One thread at a time.
class CMemoryStream final : public CUnknown, public IStream {
public:
    CMemoryStream() : CUnknown("CMemoryStream", nullptr) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT Read(void* buffer, ULONG count, ULONG* read) override;
    // All or nothing. A gap between the end and the position is filled with zeros.
    HRESULT Write(const void* buffer, ULONG count, ULONG* written) override;
    // A position past the end is allowed; one below 0 is E_INVALIDARG and moves nothing.
    HRESULT Seek(int64_t move, DWORD origin, uint64_t* position) override;
    HRESULT SetSize(uint64_t size) override;
    HRESULT CopyTo(IStream*, uint64_t, uint64_t*, uint64_t*) override { return E_NOTIMPL; }
    HRESULT Commit(DWORD) override { return S_OK; }
    HRESULT Revert() override { return E_NOTIMPL; }
    HRESULT LockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT UnlockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG* out, DWORD flags) override;
    HRESULT Clone(IStream**) override { return E_NOTIMPL; }

    std::span<const uint8_t> Bytes() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
    uint64_t m_position = 0;
};
