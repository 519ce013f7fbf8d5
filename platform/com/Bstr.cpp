#include "platform/com/Bstr.h"

#include <cstring>
#include <new>
#include <string>

namespace {

// The length in bytes stands in the four bytes before the text; the block begins eight before, so
// that the text is aligned as the allocator aligns.
constexpr size_t kPrefix = 8;
constexpr size_t kLengthAt = 4;

}  // namespace

BSTR SysAllocStringLen(const OLECHAR* text, uint32_t length) {
    const size_t bytes = size_t{length} * sizeof(OLECHAR);
    auto* block = static_cast<char*>(::operator new(kPrefix + bytes + sizeof(OLECHAR), std::nothrow));
    if (block == nullptr)
        return nullptr;
    const auto stored = static_cast<uint32_t>(bytes);
    std::memcpy(block + kLengthAt, &stored, sizeof(stored));
    auto* units = reinterpret_cast<OLECHAR*>(block + kPrefix);
    if (text != nullptr && length != 0)
        std::memcpy(units, text, bytes);
    units[length] = 0;
    return units;
}

BSTR SysAllocString(const OLECHAR* text) {
    if (text == nullptr)
        return nullptr;
    return SysAllocStringLen(text, static_cast<uint32_t>(std::char_traits<OLECHAR>::length(text)));
}

void SysFreeString(BSTR text) {
    if (text != nullptr)
        ::operator delete(reinterpret_cast<char*>(text) - kPrefix);
}

uint32_t SysStringLen(const OLECHAR* text) {
    if (text == nullptr)
        return 0;
    uint32_t bytes = 0;
    std::memcpy(&bytes, reinterpret_cast<const char*>(text) - (kPrefix - kLengthAt), sizeof(bytes));
    return bytes / sizeof(OLECHAR);
}
