// DVB text and language codes.
#include <gtest/gtest.h>
#include <iconv.h>

#include <map>
#include <optional>
#include <vector>

#include "descriptors/DvbText.h"
#include "descriptors/LanguageCode.h"

namespace tessel {
namespace {

using Bytes = std::vector<uint8_t>;

std::u16string Decode(const Bytes& bytes) {
    const Bytes exact(bytes);  // no spare capacity: a read past the end is seen by the sanitizers
    return DecodeDvbText(exact.data(), static_cast<int32_t>(exact.size()));
}

Bytes InTable(uint8_t number, const Bytes& text) {
    Bytes bytes(3 + text.size());
    bytes[0] = 0x10;
    bytes[2] = number;
    std::copy(text.begin(), text.end(), bytes.begin() + 3);
    return bytes;
}

// The same tables as the C library has them.
class SystemTable {
public:
    explicit SystemTable(const std::string& name) : m_converter(iconv_open("UTF-16LE", name.c_str())) {}
    ~SystemTable() {
        if (IsOpen())
            iconv_close(m_converter);
    }

    bool IsOpen() const { return m_converter != reinterpret_cast<iconv_t>(-1); }

    std::optional<char16_t> Convert(uint8_t byte) {
        char in = static_cast<char>(byte);
        char out[4] = {};
        char* from = &in;
        char* to = out;
        size_t fromLeft = 1;
        size_t toLeft = sizeof(out);
        iconv(m_converter, nullptr, nullptr, nullptr, nullptr);
        if (iconv(m_converter, &from, &fromLeft, &to, &toLeft) != 0 || toLeft != sizeof(out) - 2)
            return {};
        return static_cast<char16_t>(static_cast<uint8_t>(out[0]) | static_cast<uint8_t>(out[1]) << 8);
    }

private:
    iconv_t m_converter;
};

TEST(DvbText, EachPartOfIso8859IsThePublishedTable) {
    for (const uint8_t part : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16}) {
        SystemTable table("ISO-8859-" + std::to_string(part));
        ASSERT_TRUE(table.IsOpen()) << int{part};
        int undefined = 0;
        for (int byte = 0; byte < 256; ++byte) {
            if (byte == 0x86 || byte == 0x87 || byte == 0x8A)
                continue;  // control codes
            auto expected = table.Convert(static_cast<uint8_t>(byte));
            if (!expected) {
                ++undefined;
                expected = part == 11 ? u'\uFFFD' : u' ';
            }
            EXPECT_EQ(Decode(InTable(part, {static_cast<uint8_t>(byte)})), std::u16string(1, *expected))
                << "part " << int{part} << std::hex << " byte " << byte;
        }
        static const std::map<int, int> kUndefined = {{3, 7}, {6, 45}, {7, 3}, {8, 36}, {11, 8}};
        EXPECT_EQ(undefined, kUndefined.contains(part) ? kUndefined.at(part) : 0) << "part " << int{part};
    }
}

TEST(DvbText, Iso6937SingleBytesAreTheStandardsButForKnownOnes) {
    // Revisions of the standard, and oddities that receivers have come to show.
    const std::map<int, char16_t> differing = {{0xA4, u'$'}, {0xA6, u'#'}, {0xB4, u'x'}, {0xD0, u'–'}, {0xD1, u'ו'},
                                               {0xD6, u'€'}, {0xD7, u'‰'}, {0xD8, u'α'}, {0xD9, u' '}, {0xDA, u' '},
                                               {0xDB, u' '}, {0xE3, u'ā'}, {0xE5, u' '}, {0xEB, u'ō'}, {0xF0, u'κ'},
                                               {0xF9, u'Ø'}, {0xFC, u'Þ'}, {0xFF, u'■'}};
    SystemTable table("ISO_6937");
    ASSERT_TRUE(table.IsOpen());
    for (int byte = 0; byte < 256; ++byte) {
        if ((byte >= 0x80 && byte < 0xA0) || (byte >= 0xC0 && byte < 0xD0))
            continue;
        const auto known = differing.find(byte);
        const auto expected = known != differing.end() ? known->second : table.Convert(static_cast<uint8_t>(byte));
        ASSERT_TRUE(expected) << std::hex << byte;
        EXPECT_EQ(Decode(InTable(0, {static_cast<uint8_t>(byte)})), std::u16string(1, *expected)) << std::hex << byte;
    }
}

TEST(DvbText, Iso6937MarksComposeWithTheLettersThatTakeThem) {
    struct Mark {
        uint8_t byte;
        char16_t spacing;
        std::string_view letters;
        std::u16string_view composed;
    };
    const Mark marks[] = {
        {0xC0, u' ', "", u""},
        {0xC1, u'`', "AEIOUWYaeiouwy", u"ÀÈÌÒÙẀỲàèìòùẁỳ"},
        {0xC3, u'ˆ', "ACEGHIJOSUWYaceghijosuwy", u"ÂĈÊĜĤÎĴÔŜÛŴŶâĉêĝĥîĵôŝûŵŷ"},
        {0xC5, u'ˉ', "AEIOUaeiou", u"ĀĒĪŌŪāēīōū"},
        {0xC9, u'.', "AEIOUYaeiouy", u"ẠẸỊỌỤỴạẹịọụỵ"},
        {0xCA, u'˚', "AUau", u"ÅŮåů"},
        {0xCC, u'_', "", u""},
        {0xCF, u'ˇ', "ACDEINORSTUZacdeinorstuz", u"ǍČĎĚǏŇǑŘŠŤǓŽǎčďěǐňǒřšťǔž"},
    };
    for (const Mark& mark : marks) {
        EXPECT_EQ(Decode(InTable(0, {mark.byte, ' '})), std::u16string(1, mark.spacing)) << int{mark.byte};
        EXPECT_EQ(Decode(InTable(0, {'a', mark.byte})), (std::u16string{u'a', mark.spacing})) << int{mark.byte};
        ASSERT_EQ(mark.letters.size(), mark.composed.size());
        for (int base = 0; base < 256; ++base) {
            if (base == ' ' || base == 0x86 || base == 0x87 || base == 0x8A)
                continue;
            const size_t at = mark.letters.find(static_cast<char>(base));
            const auto expected = at != mark.letters.npos ? mark.composed[at] : static_cast<char16_t>(base);
            EXPECT_EQ(Decode(InTable(0, {mark.byte, static_cast<uint8_t>(base), 'z'})),
                      (std::u16string{expected, u'z'}))
                << std::hex << int{mark.byte} << " " << base;
        }
    }
}

TEST(DvbText, TheFirstByteChoosesTheTable) {
    struct Case {
        const char* what;
        Bytes bytes;
        std::u16string_view text;
    };
    const Case cases[] = {
        {"no selector is part 1", {'H', 'a', 'l', 'l', 'o'}, u"Hallo"},
        {"no selector, the ends of its range", {' ', 0xE9}, u" é"},
        {"1 is part 5", {0x01, 0xB0}, u"А"},
        {"5 is part 9", {0x05, 0xD0, 0xC0}, u"ĞÀ"},
        {"6 is reserved", {0x06, 'a'}, u""},
        {"0F is reserved", {0x0F, 'a'}, u""},
        {"0 is no text", {0x00, 'a'}, u""},
        {"10 with a part", {0x10, 0x00, 0x02, 0xA1}, u"Ą"},
        {"10 with ISO 6937", {0x10, 0x00, 0x00, 0xC2, 0x65}, u"é"},
        {"10 with the part that was never made", {0x10, 0x00, 0x0C, 'a'}, u""},
        {"10 with a part beyond the last", {0x10, 0x00, 0x11, 'a'}, u""},
        {"10 takes both bytes of the number", {0x10, 0x01, 0x02, 0xA1}, u""},
        {"10 with two bytes a character", {0x10, 0x00, 0x12, 0x01, 0x04}, u"Ą"},
        {"10 without a number", {0x10, 0x00}, u""},
        {"10 without text", {0x10, 0x00, 0x01}, u""},
        {"11 drops emphasis and an odd byte", {0x11, 0x00, 'A', 0xE0, 0x86, 0x00, 'B', 0x00}, u"AB"},
        {"11 drops its control codes only", {0x11, 0xE0, 0x87, 0xE0, 0x8A, 0x00, 0x86, 0xE0, 0x8B}, u"\u0086\uE08B"},
        {"12 has no converter", {0x12, 'a', 'b'}, u""},
        {"1F is reserved", {0x1F, 0x01, 'a'}, u""},
        {"control codes go, others stay", {'a', 0x86, 'b', 0x87, 0x8A, 0x8B}, u"ab\u008B"},
        {"a mark hides no control code", {0x10, 0x00, 0x00, 0xC8, 0x8A, 'b'}, u"b"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Decode(c.bytes), c.text) << c.what;
    EXPECT_EQ(Decode({'a', 0, 'b'}), (std::u16string{u'a', 0, u'b'}));
    EXPECT_EQ(DecodeDvbText(nullptr, 3), u"");
    const uint8_t byte = 'a';
    EXPECT_EQ(DecodeDvbText(&byte, 0), u"");
    EXPECT_EQ(DecodeDvbText(&byte, -1), u"");
}

TEST(LanguageCode, SynonymsMeetInOneCode) {
    struct Case {
        const char bytes[4];
        const char* code;
    };
    for (const Case c : {Case{"GER", "ger"}, Case{"deu", "ger"}, Case{"\0de", "ger"}, Case{"2CH", "ger"},
                         Case{"xyz", "xyz"}, Case{"RUM", "ron"}, Case{"\0ro", "ron"}, Case{"mak", "mac"},
                         Case{"fra", "fre"}, Case{"\0FR", "fre"}, Case{"\0aa", "aar"}, Case{"\0zu", "zul"},
                         Case{"bod", "tib"}, Case{"zho", "chi"}, Case{"de\0", "de"}, Case{"\0qq", "qq"}}) {
        const auto* b = reinterpret_cast<const uint8_t*>(c.bytes);
        const std::string_view code(c.code);
        EXPECT_EQ(LanguageName(NormaliseLanguage(b[0], b[1], b[2])), std::u16string(code.begin(), code.end()))
            << c.code;
    }
    EXPECT_EQ(NormaliseLanguage('D', 'E', 'U'), 0x676572u);
    EXPECT_EQ(NormaliseLanguage(0xC4, '[', '@'), 0xC45B40u) << "only A to Z have a lower case";
}

}  // namespace
}  // namespace tessel
