#include "source/MemoryCache.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tessel {

size_t CMemoryCache::Find(const BUFFERHDR& record) const {
    const auto found = std::find_if(m_frames.begin(), m_frames.end(), [&record](const Frame& frame) {
        return frame.file != nullptr && frame.file == record.file && frame.fileOffset == record.fileOffset &&
               frame.length == record.length;
    });
    return static_cast<size_t>(found - m_frames.begin());
}

void CMemoryCache::Describe(size_t index, uint32_t valid, BUFFERHDR* record) {
    record->buffer = m_buffer.get();
    record->offset = static_cast<uint32_t>(index) * kFrameSize;
    record->valid = valid;
    m_frames[index].lastUse = ++m_uses;
}

HRESULT CMemoryCache::CheckPreload(const BUFFERHDR& record) const {
    return Find(record) < m_frames.size() ? S_OK : kNotCached;
}

HRESULT CMemoryCache::LockData(BUFFERHDR* record) {
    const size_t index = Find(*record);
    if (index == m_frames.size())
        return kNotCached;
    Describe(index, m_frames[index].length, record);
    ++m_frames[index].locks;
    record->locked = 1;
    return S_OK;
}

void CMemoryCache::Unlock(BUFFERHDR* record) {
    if (std::exchange(record->locked, 0) != 0)
        --m_frames[record->offset / kFrameSize].locks;
}

void CMemoryCache::Forget(const CFile* file) {
    for (Frame& frame : m_frames)
        if (frame.file == file)
            frame = {.locks = frame.locks};
}

HRESULT CMemoryCacheEx::Init(uint32_t size) {
    try {
        m_buffer = std::make_unique_for_overwrite<uint8_t[]>(size);
        m_frames.resize(size / kFrameSize);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CMemoryCacheEx::LockRead(BUFFERHDR* record) {
    const uint16_t locks = std::exchange(record->locked, 0);
    const HRESULT result = ReadInto(record, locks);
    if (result == S_OK)
        record->locked = locks;
    return result;
}

HRESULT CMemoryCacheEx::ReadInto(BUFFERHDR* record, uint16_t locks) {
    if (record->length > kFrameSize)
        return E_INVALIDARG;
    const auto oldest = std::min_element(m_frames.begin(), m_frames.end(), [](const Frame& a, const Frame& b) {
        return std::pair(a.locks != 0, a.lastUse) < std::pair(b.locks != 0, b.lastUse);
    });
    if (oldest == m_frames.end() || oldest->locks != 0)
        return E_OUTOFMEMORY;
    *oldest = {};
    const auto index = static_cast<size_t>(oldest - m_frames.begin());
    const int64_t count =
        record->file->ReadAt(record->fileOffset, {m_buffer.get() + index * kFrameSize, record->length});
    if (count < 0)
        return E_FAIL;
    Describe(index, static_cast<uint32_t>(count), record);
    oldest->locks = locks;
    if (record->valid == record->length) {
        oldest->file = record->file;
        oldest->fileOffset = record->fileOffset;
        oldest->length = record->length;
    }
    return S_OK;
}

}  // namespace tessel
