#include "Classes/MultiPlatform/ByteBuffer.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace tessel {

bool ByteBuffer::Allocate(uint32_t capacity) {
    if (Held())
        return m_allocated != 0;
    if (m_allocated >= capacity + kAlignment)
        return true;
    m_read = m_write = 0;
    m_allocated = 0;
    m_data = nullptr;
    m_storage.reset();
    return Grow(capacity);
}

bool ByteBuffer::Grow(uint32_t capacity) {
    if (Held())
        return false;
    if (m_allocated >= capacity + kAlignment)
        return true;
    std::unique_ptr<uint8_t[]> storage(new (std::nothrow) uint8_t[capacity + kAlignment]);
    if (!storage)
        return false;
    const auto misaligned = reinterpret_cast<uintptr_t>(storage.get()) % kAlignment;
    uint8_t* const data = storage.get() + (misaligned == 0 ? 0 : kAlignment - misaligned);
    if (Available() > 0)
        std::memcpy(data, ReadPointer(), static_cast<size_t>(Available()));
    m_write -= m_read;
    m_read = 0;
    m_storage = std::move(storage);
    m_data = data;
    m_allocated = capacity + kAlignment;
    return true;
}

void ByteBuffer::MakeRoom(int32_t length) {
    // A small rest is moved early: what is written again and again then stays in the processor's cache.
    constexpr int32_t kSmall = 1024;
    if (Held() || m_read == 0 || (length <= Capacity() - m_write && Available() > kSmall))
        return;
    std::memmove(m_data, m_data + m_read, static_cast<size_t>(Available()));
    m_write -= m_read;
    m_read = 0;
}

int32_t ByteBuffer::Append(const uint8_t* bytes, int32_t length) {
    if (length <= 0 || (Held() && length > Capacity() - m_write))
        return 0;
    MakeRoom(length);
    const int32_t count = std::min(length, Capacity() - m_write);
    if (count > 0) {
        std::memcpy(m_data + m_write, bytes, static_cast<size_t>(count));
        m_write += count;
    }
    return count;
}

std::span<uint8_t> ByteBuffer::Reserve(int32_t length) {
    if (length <= 0 || (Held() && length > Capacity() - m_write))
        return {};
    MakeRoom(length);
    const int32_t count = std::min(length, Capacity() - m_write);
    if (count <= 0)
        return {};
    ++m_hold;
    return {m_data + m_write, static_cast<size_t>(count)};
}

void ByteBuffer::Commit(int32_t written) {
    if (written > 0)
        m_write += std::min(written, Capacity() - m_write);
    if (m_hold > 0)
        --m_hold;
}

}  // namespace tessel
