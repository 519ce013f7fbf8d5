// Decoding of the texts in DVB service information, EN 300 468 annex A.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "descriptors/DvbTextTables.h"

namespace tessel {

// The text without the bytes that select its table and without the control codes emphasis on,
// emphasis off and CR/LF. Empty for what names no known table, or for nothing; it may hold U+0000.
// Keeps no state; throws std::bad_alloc only.
std::u16string DecodeDvbText(const uint8_t* bytes, int32_t length);

// Converts one character of a table at a time. Instances are immutable and serve all threads.
class MBToWC {
public:
    // Writes the code unit at the front of text and returns the bytes consumed, 1 or 2 and never
    // more than there are. text is not empty.
    virtual size_t Convert(char16_t& out, std::span<const uint8_t> text) const = 0;

protected:
    ~MBToWC() = default;
};

// The converter of a table number: 0 ISO 6937, 1 to 11 and 13 to 16 that part of ISO/IEC 8859; null
// for every other number.
const MBToWC* FindConverter(uint32_t number);

class iso6937_mbtowc final : public MBToWC {
public:
    size_t Convert(char16_t& out, std::span<const uint8_t> text) const override;
};

class iso8859_1_mbtowc final : public MBToWC {
public:
    size_t Convert(char16_t& out, std::span<const uint8_t> text) const override {
        out = text.front();
        return 1;
    }
};

// A part of ISO/IEC 8859: bytes below 0xA0 stand for themselves.
template <const HighTable& kHigh>
class Iso8859Converter final : public MBToWC {
public:
    size_t Convert(char16_t& out, std::span<const uint8_t> text) const override {
        const uint8_t byte = text.front();
        out = byte < kFirstHigh ? byte : kHigh[byte - kFirstHigh];
        return 1;
    }
};

using iso8859_2_mbtowc = Iso8859Converter<kIso8859_2>;
using iso8859_3_mbtowc = Iso8859Converter<kIso8859_3>;
using iso8859_4_mbtowc = Iso8859Converter<kIso8859_4>;
using iso8859_5_mbtowc = Iso8859Converter<kIso8859_5>;
using iso8859_6_mbtowc = Iso8859Converter<kIso8859_6>;
using iso8859_7_mbtowc = Iso8859Converter<kIso8859_7>;
using iso8859_8_mbtowc = Iso8859Converter<kIso8859_8>;
using iso8859_9_mbtowc = Iso8859Converter<kIso8859_9>;
using iso8859_10_mbtowc = Iso8859Converter<kIso8859_10>;
using iso8859_11_mbtowc = Iso8859Converter<kIso8859_11>;
using iso8859_13_mbtowc = Iso8859Converter<kIso8859_13>;
using iso8859_14_mbtowc = Iso8859Converter<kIso8859_14>;
using iso8859_15_mbtowc = Iso8859Converter<kIso8859_15>;
using iso8859_16_mbtowc = Iso8859Converter<kIso8859_16>;

}  // namespace tessel
