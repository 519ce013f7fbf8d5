// UTF-16 as interfaces speak it to UTF-8 as files and terminals want it.
#pragma once

#include <string>
#include <string_view>

// c: below 0x110000.
void AppendUtf8(std::string& out, char32_t c);
// Half a surrogate pair becomes U+FFFD.
std::string Utf8FromUtf16(std::u16string_view text);
