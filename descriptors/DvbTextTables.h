// The upper halves of the single-byte character tables of EN 300 468 annex A.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

// UTF-16 code units of the bytes 0xA0 to 0xFF, and the terminator of the literal that spells them.
inline constexpr size_t kFirstHigh = 0xA0;
using HighTable = std::array<char16_t, 97>;

// A byte that parts 3, 6, 7 and 8 leave undefined is a space; in part 11 it is U+FFFD.
extern const HighTable kIso8859_2;
extern const HighTable kIso8859_3;
extern const HighTable kIso8859_4;
extern const HighTable kIso8859_5;
extern const HighTable kIso8859_6;
extern const HighTable kIso8859_7;
extern const HighTable kIso8859_8;
extern const HighTable kIso8859_9;
extern const HighTable kIso8859_10;
extern const HighTable kIso8859_11;
extern const HighTable kIso8859_13;
extern const HighTable kIso8859_14;
extern const HighTable kIso8859_15;
extern const HighTable kIso8859_16;

// ISO 6937. At 0xC0 to 0xCF stand the spacing forms of the marks.
extern const HighTable kIso6937;

// ISO 6937: what a mark (0xC0 to 0xCF) makes of the base character (0x40 to 0x7F) after it; the
// base character itself where the two have no composed form.
inline constexpr size_t kFirstMark = 0xC0;
inline constexpr size_t kMarks = 16;
inline constexpr size_t kFirstBase = 0x40;
inline constexpr size_t kBases = 64;
using MarkTable = std::array<std::array<char16_t, kBases>, kMarks>;
extern const MarkTable kIso6937Marked;

}  // namespace tessel
