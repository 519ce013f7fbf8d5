#include "platform/com/GuidText.h"

#include <charconv>
#include <cstdio>

namespace {

template <class T>
bool TakeHex(std::string_view text, size_t at, T* out) {
    const char* end = text.data() + at + 2 * sizeof(T);
    return std::from_chars(text.data() + at, end, *out, 16).ptr == end;
}

}  // namespace

std::string GuidToText(const GUID& guid) {
    char text[39];
    const auto& tail = guid.Data4;
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                  guid.Data3, tail[0], tail[1], tail[2], tail[3], tail[4], tail[5], tail[6], tail[7]);
    return text;
}

std::optional<GUID> GuidFromText(std::string_view text) {
    if (text.size() != 38 || text[0] != '{' || text[37] != '}')
        return std::nullopt;
    for (const size_t at : {9, 14, 19, 24})
        if (text[at] != '-')
            return std::nullopt;
    GUID guid;
    bool good = TakeHex(text, 1, &guid.Data1) && TakeHex(text, 10, &guid.Data2) && TakeHex(text, 15, &guid.Data3);
    for (size_t i = 0; i < guid.Data4.size(); ++i)
        good = good && TakeHex(text, (i < 2 ? 20 : 21) + 2 * i, &guid.Data4[i]);
    return good ? std::optional(guid) : std::nullopt;
}
