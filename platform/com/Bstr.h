// System strings: UTF-16, zero-terminated, their length held in front of the first unit.
//
// A BSTR handed to a caller is the caller's to free. A null BSTR counts as empty.
#pragma once

#include <string_view>
#include <utility>

#include "platform/com/Result.h"

using BSTR = OLECHAR*;

// A copy of length units of text (null text: uninitialised but terminated); null when out of memory.
BSTR SysAllocStringLen(const OLECHAR* text, uint32_t length);
// A copy up to the terminating zero; null for null.
BSTR SysAllocString(const OLECHAR* text);
void SysFreeString(BSTR text);
// Units without the terminating zero; 0 for null.
uint32_t SysStringLen(const OLECHAR* text);

// Owns one BSTR.
class CBstr {
public:
    CBstr() = default;
    explicit CBstr(std::u16string_view text)
        : m_text(SysAllocStringLen(text.data(), static_cast<uint32_t>(text.size()))) {}
    CBstr(CBstr&& other) noexcept : m_text(std::exchange(other.m_text, nullptr)) {}
    CBstr& operator=(CBstr&& other) noexcept {
        std::swap(m_text, other.m_text);
        return *this;
    }
    ~CBstr() { SysFreeString(m_text); }

    BSTR Get() const { return m_text; }
    explicit operator bool() const { return m_text != nullptr; }
    std::u16string_view View() const { return {m_text != nullptr ? m_text : u"", SysStringLen(m_text)}; }

    // For a call that writes a new string.
    BSTR* Put() {
        SysFreeString(std::exchange(m_text, nullptr));
        return &m_text;
    }

private:
    BSTR m_text = nullptr;
};
