// A cache of file blocks in one piece of memory, cut into frames of the longest block.
//
// A block is found again by its file, its offset and its length together: the last block of a file that
// has grown is another block, and is read again. Blocks that nobody holds make room for new ones, the
// one that was used longest ago first. The caller takes care that one thread is in here at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/com/Result.h"
#include "platform/os/File.h"

namespace tessel {

// CheckPreload, LockData: the block is not in the cache.
inline constexpr HRESULT kNotCached = MakeResult(0xA0000001);

// A request for a block, and what the cache says of it.
struct BUFFERHDR {
    const CFile* file = nullptr;
    uint64_t fileOffset = 0;
    uint32_t length = 0;  // asked for

    uint8_t* buffer = nullptr;  // the cache's memory
    uint32_t offset = 0;        // of the block in it
    uint32_t valid = 0;         // bytes of the block that there are
    uint16_t locked = 0;        // not 0 while the record holds the block

    const uint8_t* Data() const { return buffer + offset; }
};

inline void BHDR_Clear(BUFFERHDR* record) {
    *record = {};
}
inline void BHDR_SetFile(BUFFERHDR* record, const CFile* file, uint64_t offset, uint32_t length) {
    record->file = file;
    record->fileOffset = offset;
    record->length = length;
}
// For LockRead to hold the block.
inline void BHDR_Lock(BUFFERHDR* record) {
    record->locked = 1;
}

class CMemoryCache {
public:
    static constexpr uint32_t kFrameSize = 0x20000;

    // S_OK when the block is here, else kNotCached.
    HRESULT CheckPreload(const BUFFERHDR& record) const;
    // Finds a block that is here, and holds it until Unlock.
    HRESULT LockData(BUFFERHDR* record);
    // The block may make room, once no other record holds it either.
    void Unlock(BUFFERHDR* record);
    // What was read of file is not found again. For a file that is closed, or whose bytes have changed.
    void Forget(const CFile* file);

protected:
    struct Frame {
        const CFile* file = nullptr;  // null: holds nothing that could be found
        uint64_t fileOffset = 0;
        uint32_t length = 0;
        uint32_t locks = 0;
        uint64_t lastUse = 0;
    };

    void Describe(size_t index, uint32_t valid, BUFFERHDR* record);

    std::unique_ptr<uint8_t[]> m_buffer;
    std::vector<Frame> m_frames;

private:
    size_t Find(const BUFFERHDR& record) const;  // m_frames.size(): not here

    uint64_t m_uses = 0;
};

// The part that gets memory and reads.
class CMemoryCacheEx final : public CMemoryCache {
public:
    // Once, before all else. size: bytes, of which whole frames are used. E_OUTOFMEMORY.
    HRESULT Init(uint32_t size);
    // Reads the block into a frame and holds it when the record is marked. A block that comes out shorter
    // than asked for is given out, but not found again. E_INVALIDARG: longer than a frame. E_OUTOFMEMORY:
    // every frame is held. E_FAIL: the file does not give it. After a failure the record holds nothing.
    HRESULT LockRead(BUFFERHDR* record);

private:
    HRESULT ReadInto(BUFFERHDR* record, uint16_t locks);
};

}  // namespace tessel
