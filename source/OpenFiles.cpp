#include "source/OpenFiles.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace tessel {

static_assert(OpenFiles::kHeldBlocks < OpenFiles::kCacheSize / CMemoryCache::kFrameSize,
              "one frame at least is free for the next block");

OpenFiles& OpenFiles::Instance() {
    static OpenFiles files;
    return files;
}

OpenFiles::Reference OpenFiles::Attach(std::string path, std::unique_ptr<CFile> opened) {
    for (char& c : path)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    const CFile::Identity identity = opened->GetIdentity();

    const CScopedLock lock(&m_lock);
    std::unique_ptr<CMemoryCacheEx> cache;
    if (!m_cache) {
        cache = std::make_unique<CMemoryCacheEx>();
        if (FAILED(cache->Init(kCacheSize)))
            throw std::bad_alloc();
    }
    File& file = m_files[{std::move(path), identity}];
    if (!file.file)
        file.file = std::move(opened);
    ++file.references;
    if (cache) {
        m_cache = std::move(cache);
        std::for_each(m_slotRing.begin(), m_slotRing.end(), [](BUFFERHDR& slot) { BHDR_Clear(&slot); });
        m_nextSlot = 0;
    }
    return Reference(&file);
}

void OpenFiles::Detach(File* file) {
    std::unique_ptr<CFile> closing;  // closed when the lock is free again
    const CScopedLock lock(&m_lock);
    if (--file->references > 0)
        return;
    m_cache->Forget(file->file.get());
    closing = std::move(file->file);
    std::erase_if(m_files, [file](const auto& entry) { return &entry.second == file; });
    if (m_files.empty())
        m_cache.reset();
}

int64_t OpenFiles::GetSize(File& file) {
    const CScopedLock lock(&m_lock);
    const int64_t size = file.file->GetSize();
    if (size < 0)
        return size;
    // Cut off and perhaps written anew: no block can be trusted.
    if (static_cast<uint64_t>(size) < file.size)
        m_cache->Forget(file.file.get());
    file.size = static_cast<uint64_t>(size);
    return size;
}

OpenFiles::Block OpenFiles::ReadBlock(const File& file, uint64_t offset, uint32_t length, uint32_t skip,
                                      std::span<uint8_t> buffer) {
    CScopedLock lock(&m_lock);
    BUFFERHDR record;
    if (skip == 0 && buffer.size() >= length && length == CMemoryCache::kFrameSize) {
        BHDR_SetFile(&record, file.file.get(), offset, length);
        if (m_cache->CheckPreload(record) == kNotCached)
            return ReadPast(*file.file, offset, skip, buffer.first(length));
    }
    const HRESULT result = GetBlock(file.file.get(), offset, length, &record);
    if (FAILED(result) && skip == 0)
        return {result, 0, 0};
    // The file may have become shorter since its size was asked for; or something in the block cannot be read, which
    // what is wanted may lie behind.
    if (FAILED(result) || record.valid <= skip)
        return ReadPast(*file.file, offset, skip, buffer.first(std::min<size_t>(buffer.size(), length - skip)));
    const auto copied = static_cast<uint32_t>(std::min<size_t>(record.valid - skip, buffer.size()));
    std::memcpy(buffer.data(), record.Data() + skip, copied);
    return {S_OK, record.valid, copied};
}

OpenFiles::Block OpenFiles::ReadPast(const CFile& file, uint64_t offset, uint32_t skip, std::span<uint8_t> buffer) {
    const int64_t read = file.ReadAt(offset + skip, buffer);
    if (read < 0)
        return {E_FAIL, 0, 0};
    return {S_OK, skip + static_cast<uint32_t>(read), static_cast<uint32_t>(read)};
}

HRESULT OpenFiles::GetBlock(const CFile* file, uint64_t offset, uint32_t length, BUFFERHDR* record) {
    BHDR_Clear(record);
    BHDR_SetFile(record, file, offset, length);
    if (m_cache->CheckPreload(*record) != kNotCached) {
        const HRESULT result = m_cache->LockData(record);
        m_cache->Unlock(record);  // stays, as the lock is held until it is copied
        return result;
    }
    BUFFERHDR& slot = m_slotRing[m_nextSlot];
    m_nextSlot = (m_nextSlot + 1) % m_slotRing.size();
    if (slot.locked != 0)
        m_cache->Unlock(&slot);
    BHDR_Clear(&slot);
    BHDR_SetFile(&slot, file, offset, length);
    BHDR_Lock(&slot);
    if (m_cache->LockRead(&slot) != S_OK)
        return E_FAIL;
    *record = slot;
    return S_OK;
}

}  // namespace tessel
