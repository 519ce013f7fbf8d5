#include "output/PayloadCache.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "platform/com/ComPtr.h"

namespace tessel {

namespace {

constexpr size_t kMostFree = 8;
// Fewer bytes are copied as fast.
constexpr int32_t kWorthLending = 1'024;

}  // namespace

CBlockPool::~CBlockPool() {
    for (PayloadBlock* block : m_free)
        delete block;
}

PayloadBlock* CBlockPool::Take() {
    {
        // The last one first: it is likely to be in the processor's cache.
        CScopedLock lock(&m_lock);
        if (!m_free.empty()) {
            PayloadBlock* block = m_free.back();
            m_free.pop_back();
            block->uses.store(1, std::memory_order_relaxed);
            return block;
        }
        if (m_free.capacity() == 0)
            m_free.reserve(kMostFree);
    }
    return new (std::nothrow) PayloadBlock;
}

void CBlockPool::TakeBack(void* taken) {
    auto* const block = static_cast<PayloadBlock*>(taken);
    if (block->uses.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    {
        CScopedLock lock(&m_lock);
        if (m_free.size() < kMostFree && m_free.size() < m_free.capacity()) {
            m_free.push_back(block);
            return;
        }
    }
    delete block;
}

CPayloadCache::~CPayloadCache() {
    for (const Block& block : m_blocks)
        m_pool->TakeBack(block.memory);
    if (m_spare != nullptr)
        m_pool->TakeBack(m_spare);
}

bool CPayloadCache::Reserve(int32_t length) {
    if (length <= m_room || m_spare != nullptr)
        return true;
    if (m_blocks.size() == m_blocks.capacity())
        m_blocks.reserve(2 * m_blocks.size() + 8);
    m_spare = m_pool->Take();
    return m_spare != nullptr;
}

void CPayloadCache::AddBlock() {
    // All of it has been read, and some is still lent.
    if (!m_blocks.empty() && m_available == 0) {
        m_pool->TakeBack(m_blocks.back().memory);
        m_blocks.pop_back();
    }
    m_blocks.push_back({m_spare, 0, 0});
    m_write = std::exchange(m_spare, nullptr)->bytes;
    m_room = PayloadBlock::kSize;
}

void CPayloadCache::Append(const uint8_t* bytes, int32_t length) {
    while (length > 0) {
        if (m_room == 0)
            AddBlock();
        const int32_t count = std::min(length, m_room);
        std::memcpy(m_write, bytes, static_cast<size_t>(count));
        NoteWritten(count);
        bytes += count;
        length -= count;
    }
}

void CPayloadCache::NoteWritten(int32_t count) {
    if (count == 0)
        return;
    m_blocks.back().write += count;
    m_write += count;
    m_room -= count;
    m_available += count;
}

void CPayloadCache::BeginUnit() {
    if (m_room != 0 && m_room < kLargestSample && Reserve(m_room + 1))
        EndLast();
}

void CPayloadCache::CopyTo(uint8_t* target, int32_t count) const {
    for (auto block = m_blocks.begin(); count > 0; ++block) {
        const int32_t piece = std::min(count, block->write - block->read);
        std::memcpy(target, block->memory->bytes + block->read, static_cast<size_t>(piece));
        target += piece;
        count -= piece;
    }
}

void CPayloadCache::Skip(int32_t count) {
    m_available -= count;
    while (count > 0) {
        Block& block = m_blocks.front();
        const int32_t piece = std::min(count, block.write - block.read);
        block.read += piece;
        count -= piece;
        if (block.read != block.write)
            return;
        if (m_blocks.size() > 1 || m_room == 0) {
            m_pool->TakeBack(block.memory);
            m_blocks.erase(m_blocks.begin());
        } else if (block.memory->uses.load(std::memory_order_acquire) == 1) {
            // The one that is written to begins anew.
            block.read = block.write = 0;
            m_write = block.memory->bytes;
            m_room = PayloadBlock::kSize;
        }
    }
}

bool CPayloadCache::LendTo(IMediaSample& sample, int32_t count) {
    if (count < kWorthLending || m_blocks.front().write - m_blocks.front().read < count)
        return false;
    const Block& block = m_blocks.front();
    const auto lendable = ComPtr<IMediaSample>(&sample).As<ILendableSample>();
    if (!lendable || !lendable->Lend(m_pool, block.memory, block.memory->bytes + block.read, count))
        return false;
    block.memory->uses.fetch_add(1, std::memory_order_relaxed);
    Skip(count);
    return true;
}

}  // namespace tessel
