#include "output/parsers/AC3Parser.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel::cvneDataParser {

namespace {

// A/52 table 5.18: 16-bit words in a syncframe. The codes come in pairs of one bit rate, which differ only
// at 44.1 kHz: the encoder makes up for the fraction of a word by taking turns.
constexpr uint32_t kSizeCodes = 38;
constexpr std::array<uint16_t, kSizeCodes / 2> kWords48 = {64,  80,  96,  112, 128, 160, 192,  224,  256, 320,
                                                           384, 448, 512, 640, 768, 896, 1024, 1152, 1280};
constexpr std::array<uint16_t, kSizeCodes / 2> kWords32 = {96,  120, 144, 168, 192,  240,  288,  336,  384, 480,
                                                           576, 672, 768, 960, 1152, 1344, 1536, 1728, 1920};
constexpr std::array<uint16_t, kSizeCodes> kWords44 = {
    69,  70,  87,  88,  104, 105, 121, 122, 139, 140, 174, 175, 208, 209,  243,  244,  278,  279,  348,
    349, 417, 418, 487, 488, 557, 558, 696, 697, 835, 836, 975, 976, 1114, 1115, 1253, 1254, 1393, 1394};

constexpr uint32_t kReservedRate = 3;

// The bit stream information that is decoded: all of it has at most 98 bits behind bsmod.
constexpr size_t kBsiOffset = 6;
constexpr size_t kBsiBytes = 14;

// Reads fields of up to 14 bits, most significant bit first, from bytes that hold all of them.
class BitReader {
public:
    explicit BitReader(const std::array<uint8_t, kBsiBytes>& bytes) : m_bytes(bytes) {}

    uint32_t Take(uint32_t count) {
        uint32_t value = 0;
        for (; count > 0; --count, ++m_position)
            value = value << 1 | (m_bytes.at(m_position / 8) >> (7 - m_position % 8) & 1u);
        return value;
    }

    // A flag, and behind it, when it is set, the field.
    void TakeOptional(uint32_t* flag, uint32_t* field, uint32_t count) {
        *flag = Take(1);
        *field = *flag != 0 ? Take(count) : 0;
    }

private:
    const std::array<uint8_t, kBsiBytes>& m_bytes;
    size_t m_position = 0;
};

void DecodeBsi(const std::array<uint8_t, kBsiBytes>& bytes, AC3Header* header) {
    BitReader bits(bytes);
    AC3Header& h = *header;
    h.acmod = bits.Take(3);
    h.cmixlev = (h.acmod & 1) != 0 && h.acmod != 1 ? bits.Take(2) : 3;
    h.surmixlev = (h.acmod & 4) != 0 ? bits.Take(2) : 3;
    h.dsurmod = h.acmod == 2 ? bits.Take(2) : 0;
    h.lfeon = bits.Take(1);

    h.dialnorm = bits.Take(5);
    bits.TakeOptional(&h.compre, &h.compr, 8);
    bits.TakeOptional(&h.langcode, &h.langcod, 8);
    h.audprodie = bits.Take(1);
    if (h.audprodie != 0) {
        h.mixlevel = bits.Take(5);
        h.roomtyp = bits.Take(2);
    }
    if (h.acmod == 0) {
        h.dialnorm2 = bits.Take(5);
        bits.TakeOptional(&h.compr2e, &h.compr2, 8);
        bits.TakeOptional(&h.langcod2e, &h.langcod2, 8);
        h.audprodi2e = bits.Take(1);
        if (h.audprodi2e != 0) {
            h.mixlevel2 = bits.Take(5);
            h.roomtyp2 = bits.Take(2);
        }
    }

    h.copyrightb = bits.Take(1);
    h.origbs = bits.Take(1);
    bits.TakeOptional(&h.timecod1e, &h.timecod1, 14);
    bits.TakeOptional(&h.timecod2e, &h.timecod2, 14);
    h.bsiValid = 1;
}

}  // namespace

std::optional<size_t> CAC3Parser::SyncOffset(Bytes bytes) const {
    for (size_t i = 0; i + 5 < bytes.size(); ++i) {
        const bool normal = bytes[i] == 0x0B && bytes[i + 1] == 0x77;
        const bool swapped = bytes[i] == 0x77 && bytes[i + 1] == 0x0B;
        if (!normal && !swapped)
            continue;
        const uint8_t code = bytes[i + (normal ? 4 : 5)];
        if (code >> 6 != kReservedRate && (code & 0x3F) < kSizeCodes)
            return i;
    }
    return {};
}

void CAC3Parser::DecodeHeader(Bytes bytes) {
    m_header = {};
    ByteReader reader(bytes);
    m_header.byteSwapped = reader.U16() == 0x770B ? 1 : 0;
    reader.Skip(2);  // crc1
    uint8_t sizes = reader.U8();
    uint8_t mode = reader.U8();
    if (m_header.byteSwapped != 0)
        std::swap(sizes, mode);
    m_header.fscod = sizes >> 6;
    m_header.frmsizecod = sizes & 0x3F;
    m_header.bsid = mode >> 3;
    m_header.bsmod = mode & 7;

    const auto source = reader.Take(kBsiBytes);
    if (!reader.Ok())
        return;
    std::array<uint8_t, kBsiBytes> bsi;
    static_assert(kBsiOffset % 2 == 0 && kBsiBytes % 2 == 0, "whole words are swapped");
    std::copy(source.begin(), source.end(), bsi.begin());
    if (m_header.byteSwapped != 0) {
        for (size_t i = 0; i < kBsiBytes; i += 2)
            std::swap(bsi[i], bsi[i + 1]);
    }
    DecodeBsi(bsi, &m_header);
}

uint32_t CAC3Parser::HeaderFrameLength() const {
    const uint32_t code = m_header.frmsizecod;
    switch (m_header.fscod) {
    case 0:
        return 2u * kWords48.at(code / 2);
    case 1:
        return 2u * kWords44.at(code);
    case 2:
        return 2u * kWords32.at(code / 2);
    default:
        return 0;
    }
}

FrameParser::DecodedFormat CAC3Parser::HeaderFormat() const {
    static constexpr std::array<uint8_t, 8> kChannels = {2, 1, 2, 3, 3, 4, 4, 5};  // A/52 table 5.8
    static constexpr std::array<uint32_t, 4> kRates = {48'000, 44'100, 32'000, 44'100};
    const uint32_t rate = kRates.at(m_header.fscod);
    // Two bit stream versions in use outside A/52 have half and a quarter of the rate.
    const uint32_t shift = m_header.bsid == 9 ? 1 : m_header.bsid == 10 ? 2 : 0;
    return {kChannels.at(m_header.acmod) + m_header.lfeon, rate >> shift};
}

REFERENCE_TIME CAC3Parser::TimeCode1() const {
    const uint32_t code = m_header.timecod1;
    const uint32_t hours = code >> 9;
    const uint32_t minutes = code >> 3 & 0x3F;
    return REFERENCE_TIME{(hours * 60 + minutes) * 60 + 8 * (code & 7)} * 10'000'000;
}

REFERENCE_TIME CAC3Parser::TimeCode2() const {
    const uint32_t code = m_header.timecod2;
    const uint32_t seconds = code >> 11;
    const uint32_t frames = code >> 6 & 0x1F;  // 30 a second, of 64 parts each
    return REFERENCE_TIME{(seconds * 30 + frames) * 64 + (code & 0x3F)} * 10'000'000 / 1920;
}

}  // namespace tessel::cvneDataParser
