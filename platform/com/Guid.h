// Globally unique identifiers, written in the source as the text that people compare them by.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>

struct GUID {
    uint32_t Data1 = 0;
    uint16_t Data2 = 0;
    uint16_t Data3 = 0;
    std::array<uint8_t, 8> Data4{};

    friend constexpr auto operator<=>(const GUID&, const GUID&) = default;
};

using IID = GUID;
using CLSID = GUID;

inline constexpr GUID GUID_NULL{};

namespace guid_detail {

consteval uint64_t Hex(const char* digits, size_t count) {
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        const char c = digits[i];
        if (c >= '0' && c <= '9')
            value = value << 4 | static_cast<uint64_t>(c - '0');
        else if (c >= 'A' && c <= 'F')
            value = value << 4 | static_cast<uint64_t>(c - 'A' + 10);
        else
            throw "a GUID is written in upper-case hexadecimal digits";
    }
    return value;
}

}  // namespace guid_detail

// "{01234567-89AB-CDEF-0123-456789ABCDEF}" at compile time; a malformed text does not compile.
consteval GUID MakeGuid(const char (&text)[39]) {
    if (text[0] != '{' || text[9] != '-' || text[14] != '-' || text[19] != '-' || text[24] != '-' || text[37] != '}')
        throw "a GUID is written {8-4-4-4-12}";
    GUID guid;
    guid.Data1 = static_cast<uint32_t>(guid_detail::Hex(text + 1, 8));
    guid.Data2 = static_cast<uint16_t>(guid_detail::Hex(text + 10, 4));
    guid.Data3 = static_cast<uint16_t>(guid_detail::Hex(text + 15, 4));
    for (size_t i = 0; i < 2; ++i)
        guid.Data4[i] = static_cast<uint8_t>(guid_detail::Hex(text + 20 + 2 * i, 2));
    for (size_t i = 0; i < 6; ++i)
        guid.Data4[2 + i] = static_cast<uint8_t>(guid_detail::Hex(text + 25 + 2 * i, 2));
    return guid;
}
