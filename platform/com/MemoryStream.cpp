#include "platform/com/MemoryStream.h"

#include <algorithm>
#include <exception>

HRESULT CMemoryStream::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == ISequentialStream::kIid)
        return GetInterface<ISequentialStream>(this, out);
    if (out != nullptr && iid == IStream::kIid)
        return GetInterface<IStream>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CMemoryStream::Read(void* buffer, ULONG count, ULONG* read) {
    if (read != nullptr)
        *read = 0;
    if (buffer == nullptr)
        return E_POINTER;
    if (m_position >= m_bytes.size())
        return S_OK;
    const auto length = static_cast<ULONG>(std::min<uint64_t>(count, m_bytes.size() - m_position));
    std::copy_n(m_bytes.data() + m_position, length, static_cast<uint8_t*>(buffer));
    m_position += length;
    if (read != nullptr)
        *read = length;
    return S_OK;
}

HRESULT CMemoryStream::Write(const void* buffer, ULONG count, ULONG* written) {
    if (written != nullptr)
        *written = 0;
    if (buffer == nullptr)
        return E_POINTER;
    const uint64_t end = m_position + count;
    if (end > m_bytes.size()) {
        const HRESULT result = SetSize(end);
        if (FAILED(result))
            return result;
    }
    std::copy_n(static_cast<const uint8_t*>(buffer), count, m_bytes.data() + m_position);
    m_position = end;
    if (written != nullptr)
        *written = count;
    return S_OK;
}

HRESULT CMemoryStream::Seek(int64_t move, DWORD origin, uint64_t* position) {
    uint64_t base = 0;
    if (origin == STREAM_SEEK_CUR)
        base = m_position;
    else if (origin == STREAM_SEEK_END)
        base = m_bytes.size();
    else if (origin != STREAM_SEEK_SET)
        return E_INVALIDARG;
    int64_t target = 0;
    if (__builtin_add_overflow(base, move, &target) || target < 0)
        return E_INVALIDARG;
    m_position = static_cast<uint64_t>(target);
    if (position != nullptr)
        *position = m_position;
    return S_OK;
}

HRESULT CMemoryStream::SetSize(uint64_t size) {
    try {
        m_bytes.resize(size);
    } catch (const std::exception&) {  // out of memory, or longer than any vector
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CMemoryStream::Stat(STATSTG* out, DWORD) {
    if (out == nullptr)
        return E_POINTER;
    *out = STATSTG{};
    out->type = STGTY_STREAM;
    out->cbSize = m_bytes.size();
    return S_OK;
}
