// The start codes of a video stream: 00 00 01, a byte that says what follows, and what follows.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace tessel {

// Bytes come in pieces, and a start code may lie across them.
class CStartCodeScanner {
public:
    static constexpr size_t kMostBytes = 512;

    // Calls visitor.OnStartCode(code, bytes) for every start code, bytes being the first visitor.Wanted(code) behind
    // it, kMostBytes at most, or fewer where the next start code or the end comes before.
    template <class Visitor>
    void Feed(std::span<const uint8_t> bytes, Visitor& visitor) {
        for (const uint8_t byte : bytes) {
            m_last = m_last << 8 | byte;
            if (m_last >> 8 == kPrefix) {
                // What was collected ends with the prefix of this one.
                Finish(visitor, kPrefixSize);
                m_code = byte;
                m_count = 0;
                m_wanted = visitor.Wanted(m_code);
                m_collecting = true;
            } else if (m_collecting) {
                m_bytes[m_count++] = byte;
            }
            if (m_collecting && (m_count == m_wanted || m_count == kMostBytes))
                Finish(visitor, 0);
        }
    }
    template <class Visitor>
    void Finish(Visitor& visitor) {
        Finish(visitor, 0);
        m_last = kNothing;
    }

private:
    static constexpr uint32_t kPrefix = 1;
    static constexpr size_t kPrefixSize = 3;
    static constexpr uint32_t kNothing = 0xFFFFFFFF;

    template <class Visitor>
    void Finish(Visitor& visitor, size_t tail) {
        if (!m_collecting)
            return;
        m_collecting = false;
        const std::span<const uint8_t> collected(m_bytes);
        visitor.OnStartCode(m_code, collected.first(m_count > tail ? m_count - tail : 0));
    }

    uint32_t m_last = kNothing;
    uint8_t m_code = 0;
    bool m_collecting = false;
    size_t m_wanted = 0;
    size_t m_count = 0;
    std::array<uint8_t, kMostBytes> m_bytes{};
};

}  // namespace tessel
