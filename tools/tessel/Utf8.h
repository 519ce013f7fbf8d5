// UTF-16 as the library speaks it, UTF-8 as terminals and JSON want it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/com/Utf8.h"

namespace tessel::tool {

// Half a surrogate pair becomes U+FFFD.
inline std::string ToUtf8(std::u16string_view text) {
    return Utf8FromUtf16(text);
}

// A text in UTF-8 of EN 300 468 annex A, without its control codes and what follows a zero. Of what is no UTF-8 every
// byte becomes U+FFFD.
std::string DecodeUtf8(std::span<const uint8_t> bytes);

// utf8 with everything made visible that would drive the reader's terminal: control characters, and
// the marks that end a line, turn its direction or hide in it. Broken UTF-8 becomes U+FFFD.
std::string ToTerminal(std::string_view utf8);

// Columns that utf8 takes on a terminal, counting one for each character.
size_t Columns(std::string_view utf8);

using Row = std::vector<std::string>;

// A line each with aligned columns; the last column runs free.
std::vector<std::string> Aligned(const std::vector<Row>& rows, const std::string& indent);
std::string Columned(const std::vector<Row>& rows, const std::string& indent);

}  // namespace tessel::tool
