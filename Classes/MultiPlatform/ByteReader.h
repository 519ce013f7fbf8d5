// A reader of big-endian fields that cannot run past its end.
//
// Reading beyond the end yields zeros and empty spans and makes Ok() false for good, so a parser
// reads all its fields and asks once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tessel {

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : m_bytes(bytes) {}

    bool Ok() const { return m_ok; }
    size_t Remaining() const { return m_bytes.size(); }
    std::span<const uint8_t> Rest() const { return m_bytes; }

    uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
    uint32_t U24() { return Number(3); }
    uint32_t U32() { return Number(4); }

    std::span<const uint8_t> Take(size_t count) {
        if (count > m_bytes.size()) {
            Fail();
            return {};
        }
        const auto taken = m_bytes.first(count);
        m_bytes = m_bytes.subspan(count);
        return taken;
    }

    // The lesser of count bytes and what is there: for loops whose declared length may lie.
    std::span<const uint8_t> TakeUpTo(size_t count) { return Take(count < m_bytes.size() ? count : m_bytes.size()); }

    void Skip(size_t count) { Take(count); }

private:
    void Fail() {
        m_ok = false;
        m_bytes = {};
    }

    uint32_t Number(size_t count) {
        uint32_t value = 0;
        for (const uint8_t byte : Take(count))
            value = value << 8 | byte;
        return value;
    }

    std::span<const uint8_t> m_bytes;
    bool m_ok = true;
};

}  // namespace tessel
