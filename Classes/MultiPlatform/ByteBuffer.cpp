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
    m_storage.reset(new (std::nothrow) uint8_t[capacity + kAlignment]);
    if (!m_storage)
        return false;
    m_allocated = capacity + kAlignment;
    const auto misaligned = reinterpret_cast<uintptr_t>(m_storage.get()) % kAlignment;
    m_data = m_storage.get() + (misaligned == 0 ? 0 : kAlignment - misaligned);
    return true;
}

void ByteBuffer::MakeRoom(int32_t length) {
    if (Held() || m_read == 0 || length <= Capacity() - m_write)
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
