#include "descriptors/DvbText.h"

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel {

namespace {

template <class Converter>
constexpr Converter kInstance{};

constexpr const MBToWC* kConverters[] = {
    &kInstance<iso6937_mbtowc>,
    &kInstance<iso8859_1_mbtowc>,
    &kInstance<iso8859_2_mbtowc>,
    &kInstance<iso8859_3_mbtowc>,
    &kInstance<iso8859_4_mbtowc>,
    &kInstance<iso8859_5_mbtowc>,
    &kInstance<iso8859_6_mbtowc>,
    &kInstance<iso8859_7_mbtowc>,
    &kInstance<iso8859_8_mbtowc>,
    &kInstance<iso8859_9_mbtowc>,
    &kInstance<iso8859_10_mbtowc>,
    &kInstance<iso8859_11_mbtowc>,
    nullptr,  // ISO/IEC 8859-12 was never published
    &kInstance<iso8859_13_mbtowc>,
    &kInstance<iso8859_14_mbtowc>,
    &kInstance<iso8859_15_mbtowc>,
    &kInstance<iso8859_16_mbtowc>,
};

// The control codes of a text, annex A.1; their two-byte forms stand in the private use area.
constexpr char16_t kEmphasisOn = 0x86;
constexpr char16_t kEmphasisOff = 0x87;
constexpr char16_t kLineBreak = 0x8A;
constexpr char16_t kTwoByteControls = 0xE000;

bool IsDropped(char16_t control) {
    return control == kEmphasisOn || control == kEmphasisOff || control == kLineBreak;
}

std::u16string DecodeBytes(const MBToWC* converter, std::span<const uint8_t> text) {
    std::u16string decoded;
    if (converter == nullptr)
        return decoded;
    decoded.reserve(text.size());
    while (!text.empty()) {
        char16_t unit = 0;
        text = text.subspan(converter->Convert(unit, text));
        if (!IsDropped(unit))
            decoded.push_back(unit);
    }
    return decoded;
}

std::u16string DecodePairs(std::span<const uint8_t> text) {
    std::u16string decoded;
    decoded.reserve(text.size() / 2);
    ByteReader reader(text);
    while (reader.Remaining() >= 2) {
        const char16_t unit = reader.U16();
        if (!IsDropped(static_cast<char16_t>(unit - kTwoByteControls)))
            decoded.push_back(unit);
    }
    return decoded;
}

}  // namespace

const MBToWC* FindConverter(uint32_t number) {
    return number < std::size(kConverters) ? kConverters[number] : nullptr;
}

size_t iso6937_mbtowc::Convert(char16_t& out, std::span<const uint8_t> text) const {
    const uint8_t byte = text.front();
    const bool isMark = byte >= kFirstMark && byte < kFirstMark + kMarks;
    if (!isMark || text.size() < 2) {
        out = byte < kFirstHigh ? byte : kIso6937[byte - kFirstHigh];
        return 1;
    }
    const uint8_t base = text[1];
    if (base == ' ')
        out = kIso6937[byte - kFirstHigh];
    else if (base >= kFirstBase && base < kFirstBase + kBases)
        out = kIso6937Marked[byte - kFirstMark][base - kFirstBase];
    else
        out = base;
    return 2;
}

std::u16string DecodeDvbText(const uint8_t* bytes, int32_t length) {
    if (bytes == nullptr || length <= 0)
        return {};
    const std::span<const uint8_t> text(bytes, static_cast<size_t>(length));
    constexpr uint32_t kTwoByteTable = 0x12;

    const uint8_t selector = text.front();
    if (selector >= 0x20)
        return DecodeBytes(FindConverter(1), text);
    ByteReader reader(text.subspan(1));
    switch (selector) {
    case 0x01:
    case 0x02:
    case 0x03:
    case 0x04:
    case 0x05:
        return DecodeBytes(FindConverter(selector + 4u), reader.Rest());
    case 0x10: {
        const uint32_t table = reader.U16();
        return table == kTwoByteTable ? DecodePairs(reader.Rest()) : DecodeBytes(FindConverter(table), reader.Rest());
    }
    case 0x11:
        return DecodePairs(reader.Rest());
    default:
        return {};  // reserved, or a table without a converter
    }
}

}  // namespace tessel
