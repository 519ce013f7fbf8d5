// Payload on its way from the parsing thread to the delivery thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/media/MediaSample.h"

namespace tessel {

// Memory in blocks of one size, which come back from samples on any thread.
class CBlockPool final : public ISampleMemory {
public:
    static constexpr int32_t kBlockSize = 75'200;

    ~CBlockPool();

    // Null when memory is out.
    uint8_t* Take();
    void TakeBack(uint8_t* block) override;

private:
    std::mutex m_mutex;
    std::vector<uint8_t*> m_free;
};

// The bytes lie in blocks as large as a sample. Those that fill one, or are all that is in one, go to a sample without
// a copy; so a unit, which goes out by itself, begins in a new block when that costs little.
class CPayloadCache {
public:
    CPayloadCache() : m_pool(std::make_shared<CBlockPool>()) {}
    ~CPayloadCache();

    CPayloadCache(const CPayloadCache&) = delete;
    CPayloadCache& operator=(const CPayloadCache&) = delete;

    int32_t Available() const { return m_available; }

    // Makes sure that length (at most a block's size) bytes can be appended; false when memory is out.
    bool Reserve(int32_t length);
    // Bytes that have been reserved.
    void Append(const uint8_t* bytes, int32_t length);
    // Room() bytes can be written in one piece; NoteWritten makes them bytes to read.
    uint8_t* WritePointer() { return m_write; }
    int32_t Room() const { return m_room; }
    void NoteWritten(int32_t count);
    // The next byte begins a unit.
    void BeginUnit();

    // count: at most Available().
    void CopyTo(uint8_t* target, int32_t count) const;
    void Skip(int32_t count);
    void Clear() { Skip(m_available); }
    // Lends the block whose bytes are the next count ones, and no others, and skips them. False when there is none, or
    // the sample cannot have it.
    bool LendTo(IMediaSample& sample, int32_t count);

private:
    struct Block {
        uint8_t* memory;
        int32_t read;
        int32_t write;
    };

    void AddBlock();
    void EndLast() {
        m_write = nullptr;
        m_room = 0;
    }

    const std::shared_ptr<CBlockPool> m_pool;
    std::vector<Block> m_blocks;  // with room for one more while there is a spare one
    uint8_t* m_spare = nullptr;   // reserved
    // In the last block; no room when the next bytes are for a new one.
    uint8_t* m_write = nullptr;
    int32_t m_room = 0;
    int32_t m_available = 0;
};

}  // namespace tessel
