// A text that several readers share; the last one frees it. Absent is not the same as empty.
#pragma once

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "platform/com/Bstr.h"

namespace tessel {

class SharedText {
public:
    SharedText() = default;

    // The part of text before its first U+0000.
    explicit SharedText(std::u16string_view text)
        : m_text(std::make_shared<const std::u16string>(text.substr(0, text.find(u'\0')))) {}

    // No text for a null pointer.
    static SharedText FromTerminated(const OLECHAR* text) { return text == nullptr ? SharedText() : SharedText(text); }

    explicit operator bool() const { return m_text != nullptr; }

    // A new string that the caller frees, or null where there is no text. out must be valid.
    HRESULT Copy(BSTR* out) const {
        *out = nullptr;
        if (!m_text)
            return S_OK;
        *out = SysAllocStringLen(m_text->data(), static_cast<uint32_t>(m_text->size()));
        return *out != nullptr ? S_OK : E_OUTOFMEMORY;
    }

private:
    std::shared_ptr<const std::u16string> m_text;
};

}  // namespace tessel
