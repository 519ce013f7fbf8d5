// One contiguous, aligned byte buffer with a read and a write offset.
//
// 0 <= read <= write <= capacity. When read reaches write both return to 0, so that an emptied buffer
// starts at its beginning again. While an in-place write is open (hold above 0) nothing moves and
// nothing is released.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace tessel {

class ByteBuffer {
public:
    static constexpr uint32_t kAlignment = 16;

    // Makes sure that capacity bytes fit; a larger block stays, a smaller one is replaced and its bytes
    // are dropped. Does nothing while an in-place write is open. False when memory cannot be had: the
    // capacity is then 0.
    bool Allocate(uint32_t capacity);

    // As Allocate, but the bytes stay; without memory everything is as before. False then, and while held.
    bool Grow(uint32_t capacity);

    int32_t Capacity() const { return m_allocated == 0 ? 0 : static_cast<int32_t>(m_allocated - kAlignment); }
    int32_t Available() const { return m_write - m_read; }
    const uint8_t* ReadPointer() const { return m_data + m_read; }
    bool Held() const { return m_hold > 0; }

    // Copies as many of length bytes as fit, after moving the unread bytes to the front when that is
    // needed; returns how many.
    int32_t Append(const uint8_t* bytes, int32_t length);
    // As Append, for small pieces whose room has been tested: length is from 1 to Capacity() - Available().
    void AppendPiece(const uint8_t* bytes, int32_t length) {
        if (length > Capacity() - m_write)
            MakeRoom(length);
        std::memcpy(m_data + m_write, bytes, static_cast<size_t>(length));
        m_write += length;
    }

    // Releases count (at most Available()) bytes at the read offset; nothing while held.
    void Skip(int32_t count) {
        if (Held())
            return;
        m_read += count;
        if (m_read == m_write)
            m_read = m_write = 0;
    }

    // Releases everything; nothing while held.
    void Clear() {
        if (!Held())
            m_read = m_write = 0;
    }

    // Opens an in-place write of up to length bytes at the write offset; empty when there is no room.
    std::span<uint8_t> Reserve(int32_t length);
    // Closes it, keeping the first written bytes of what was reserved.
    void Commit(int32_t written);

private:
    void MakeRoom(int32_t length);

    std::unique_ptr<uint8_t[]> m_storage;
    uint8_t* m_data = nullptr;
    uint32_t m_allocated = 0;
    int32_t m_read = 0;
    int32_t m_write = 0;
    int32_t m_hold = 0;
};

}  // namespace tessel
