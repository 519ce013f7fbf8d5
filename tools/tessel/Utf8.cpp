#include "tools/tessel/Utf8.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace tessel::tool {

namespace {

// Takes one character off the front of text; of what is none, a byte.
char32_t TakeCharacter(std::string_view& text) {
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0}; };
    const auto ones = static_cast<size_t>(std::countl_one(byte(0)));
    const size_t length = ones == 0 ? 1 : ones;
    char32_t c = byte(0) & 0xFF >> ones;
    // What is longer than it must be is no character either, nor is half a surrogate pair.
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    bool whole = ones != 1 && ones <= 4;
    for (size_t i = 1; whole && i < length; ++i) {
        whole = (byte(i) & 0xC0) == 0x80;
        c = c << 6 | (byte(i) & 0x3F);
    }
    whole = whole && c >= kLeast[ones] && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
    text.remove_prefix(whole ? length : 1);
    return whole ? c : U'\uFFFD';
}

// Not on a terminal: C1 controls, marks of direction and of line ends, what has no width (the two joiners
// excepted: Persian and Indian names need them), and what is no character.
bool IsShown(char32_t c) {
    constexpr struct {
        char32_t first, last;
    } kHidden[] = {{0x0080, 0x009F}, {0x061C, 0x061C}, {0x200B, 0x200B}, {0x200E, 0x200F}, {0x2028, 0x202E},
                   {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xFFFE, 0xFFFF}, {0xE0000, 0xE0FFF}};
    return std::ranges::none_of(kHidden, [c](const auto& range) { return c >= range.first && c <= range.last; });
}

}  // namespace

std::string DecodeUtf8(std::span<const uint8_t> bytes) {
    constexpr char32_t kEmphasisOn = 0xE086, kEmphasisOff = 0xE087, kLineEnd = 0xE08A;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    std::string out;
    while (!text.empty()) {
        const char32_t c = TakeCharacter(text);
        if (c == 0)
            break;
        if (c != kEmphasisOn && c != kEmphasisOff && c != kLineEnd)
            AppendUtf8(out, c);
    }
    return out;
}

std::string ToTerminal(std::string_view utf8) {
    std::string out;
    while (!utf8.empty()) {
        const char32_t c = TakeCharacter(utf8);
        if (c < 0x20 || c == 0x7F)
            AppendUtf8(out, c == 0x7F ? U'\u2421' : U'\u2400' + c);
        else
            AppendUtf8(out, IsShown(c) ? c : U'\uFFFD');
    }
    return out;
}

size_t Columns(std::string_view utf8) {
    size_t columns = 0;
    for (const char c : utf8)
        columns += (static_cast<uint8_t>(c) & 0xC0) != 0x80;
    return columns;
}

std::vector<std::string> Aligned(const std::vector<Row>& rows, const std::string& indent) {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], Columns(row[i]));
    }
    std::vector<std::string> lines;
    for (const Row& row : rows) {
        std::string& line = lines.emplace_back(indent);
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size())
                line.append(widths[i] - Columns(row[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        line += '\n';
    }
    return lines;
}

std::string Columned(const std::vector<Row>& rows, const std::string& indent) {
    std::string text;
    for (const std::string& line : Aligned(rows, indent))
        text += line;
    return text;
}

}  // namespace tessel::tool
