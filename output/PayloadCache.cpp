#include "output/PayloadCache.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/com/ComPtr.h"

namespace tessel {

namespace {

constexpr size_t kAlignment = 64;
constexpr size_t kAllocated = (CBlockPool::kBlockSize + kAlignment - 1) / kAlignment * kAlignment;
constexpr size_t kMostFree = 16;
// A block that has so much in it is ended for the sake of a unit: at most half of the memory is wasted.
constexpr int32_t kWorthABlock = CBlockPool::kBlockSize / 2;

}  // namespace

CBlockPool::~CBlockPool() {
    for (uint8_t* block : m_free)
        std::free(block);
}

uint8_t* CBlockPool::Take() {
    {
        // The last one first: it is likely to be in the processor's cache.
        const std::lock_guard lock(m_mutex);
        if (!m_free.empty()) {
            uint8_t* block = m_free.back();
            m_free.pop_back();
            return block;
        }
        if (m_free.capacity() == 0)
            m_free.reserve(kMostFree);
    }
    return static_cast<uint8_t*>(std::aligned_alloc(kAlignment, kAllocated));
}

void CBlockPool::TakeBack(uint8_t* block) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_free.size() < kMostFree && m_free.size() < m_free.capacity()) {
            m_free.push_back(block);
            return;
        }
    }
    std::free(block);
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
    m_blocks.push_back({m_spare, 0, 0});
    m_write = std::exchange(m_spare, nullptr);
    m_room = CBlockPool::kBlockSize;
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
    if (m_room != 0 && m_blocks.back().write >= kWorthABlock && Reserve(m_room + 1))
        EndLast();
}

void CPayloadCache::CopyTo(uint8_t* target, int32_t count) const {
    for (auto block = m_blocks.begin(); count > 0; ++block) {
        const int32_t piece = std::min(count, block->write - block->read);
        std::memcpy(target, block->memory + block->read, static_cast<size_t>(piece));
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
        if (m_blocks.size() == 1 && m_room != 0) {
            // The one that is written to begins anew.
            block.read = block.write = 0;
            m_write = block.memory;
            m_room = CBlockPool::kBlockSize;
            return;
        }
        m_pool->TakeBack(block.memory);
        m_blocks.erase(m_blocks.begin());
    }
}

bool CPayloadCache::LendTo(IMediaSample& sample, int32_t count) {
    if (m_blocks.empty() || m_blocks.front().read != 0 || m_blocks.front().write != count || count < kWorthABlock)
        return false;
    const auto lendable = ComPtr<IMediaSample>(&sample).As<ILendableSample>();
    if (!lendable || !lendable->Lend(m_pool, m_blocks.front().memory, CBlockPool::kBlockSize))
        return false;
    if (m_blocks.size() == 1)
        EndLast();
    m_blocks.erase(m_blocks.begin());
    m_available -= count;
    return true;
}

}  // namespace tessel
