// Payload on its way from the parsing thread to the delivery thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/media/MediaSample.h"

namespace tessel {

// Bytes that a sample has at most: 400 packets.
inline constexpr int32_t kLargestSample = 75'200;

// Memory that goes out to several users, samples among them, and is free again when the last one has no more use for
// it.
struct PayloadBlock {
    static constexpr int32_t kSize = 2 * kLargestSample;

    std::atomic<int32_t> uses{1};
    alignas(64) uint8_t bytes[kSize];
};

class CBlockPool final : public ISampleMemory {
public:
    ~CBlockPool();

    // A block with one use; null when memory is out.
    PayloadBlock* Take();
    // One use less. block: a PayloadBlock of this pool.
    void TakeBack(void* block) override;

private:
    CCritSec m_lock{"free blocks", kRankMemory};
    std::vector<PayloadBlock*> m_free OS_GUARDED_BY(m_lock);
};

// The bytes lie in blocks that have room for several samples. Those of a sample that lie in one block are lent to it,
// without a copy; so a unit, which goes out by itself, begins where all of a sample has room.
class CPayloadCache {
public:
    CPayloadCache() : m_pool(std::make_shared<CBlockPool>()) {}
    ~CPayloadCache();

    CPayloadCache(const CPayloadCache&) = delete;
    CPayloadCache& operator=(const CPayloadCache&) = delete;

    int32_t Available() const { return m_available; }

    // Makes sure that length (at most PayloadBlock::kSize) bytes can be appended; false when memory is out.
    bool Reserve(int32_t length);
    // Bytes that have been reserved.
    void Append(const uint8_t* bytes, int32_t length);
    // Room() bytes can be written in one piece; NoteWritten makes them bytes to read.
    uint8_t* WritePointer() { return m_write; }
    int32_t Room() const { return m_room; }
    void NoteWritten(int32_t count);
    // The next byte begins a unit.
    void BeginUnit();

    // Of these three, count: at most Available().
    void CopyTo(uint8_t* target, int32_t count) const;
    void Skip(int32_t count);
    void Clear() { Skip(m_available); }
    // Lends the next count bytes, and skips them. False when they lie in two blocks, are too few to be worth it, or the
    // sample cannot have them.
    bool LendTo(IMediaSample& sample, int32_t count);

private:
    struct Block {
        PayloadBlock* memory;
        int32_t read;
        int32_t write;
    };

    void AddBlock();
    void EndLast() {
        m_write = nullptr;
        m_room = 0;
    }

    const std::shared_ptr<CBlockPool> m_pool;
    std::vector<Block> m_blocks;      // with room for one more while there is a spare one
    PayloadBlock* m_spare = nullptr;  // reserved
    // In the last block; no room when the next bytes are for a new one.
    uint8_t* m_write = nullptr;
    int32_t m_room = 0;
    int32_t m_available = 0;
};

}  // namespace tessel
