// What all file readers of the process share: one open file a path, and one block cache.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "source/MemoryCache.h"

namespace tessel {

// The cache is there while a file is open. One lock covers it, the table of files and the size that
// was last seen of each; it is held while a block is read and copied out.
class OpenFiles {
public:
    static constexpr uint32_t kCacheSize = 0xA00000;
    // So many blocks that were read last stay in the cache, however often others are used.
    static constexpr size_t kHeldBlocks = 72;

    struct File {
        std::unique_ptr<CFile> file;
        uint64_t size = 0;
        uint32_t references = 0;
    };
    struct Detacher {
        void operator()(File* file) const { Instance().Detach(file); }
    };
    // A reader's share of an open file. The last one closes it.
    using Reference = std::unique_ptr<File, Detacher>;

    struct Block {
        HRESULT result;
        uint32_t valid;   // bytes that the block has
        uint32_t copied;  // bytes that went out
    };

    static OpenFiles& Instance();

    // A reference to the file that is open by this path, in any letter case, if it is the same as opened;
    // else to opened. Throws std::bad_alloc, and then nothing has changed.
    Reference Attach(std::string path, std::unique_ptr<CFile> opened);

    // The file's size now; -1 when it cannot be had.
    int64_t GetSize(File& file);

    // Copies the bytes of the block (offset, length) from its byte `skip` on to buffer, as far as the
    // block and buffer go. The result is S_OK, or E_FAIL when the first byte of them cannot be read. Who takes a block
    // at once, as playback does, gets it past the cache, which is for those that come back.
    Block ReadBlock(const File& file, uint64_t offset, uint32_t length, uint32_t skip, std::span<uint8_t> buffer);

private:
    void Detach(File* file);
    static Block ReadPast(const CFile& file, uint64_t offset, uint32_t skip, std::span<uint8_t> buffer);
    // Fills the record with the block: from the cache, or from the file through the next ring slot.
    HRESULT GetBlock(const CFile* file, uint64_t offset, uint32_t length, BUFFERHDR* record) OS_REQUIRES(m_lock);

    CCritSec m_lock{"file reader", kRankLeaf};
    // By the path in upper case, and by what it led to when it was opened: the same path may lead to
    // another file since, and two paths in different case may lead to different ones.
    std::map<std::pair<std::string, CFile::Identity>, File> m_files OS_GUARDED_BY(m_lock);
    std::unique_ptr<CMemoryCacheEx> m_cache OS_GUARDED_BY(m_lock);
    std::array<BUFFERHDR, kHeldBlocks> m_slotRing OS_GUARDED_BY(m_lock);
    size_t m_nextSlot OS_GUARDED_BY(m_lock) = 0;
};

}  // namespace tessel
