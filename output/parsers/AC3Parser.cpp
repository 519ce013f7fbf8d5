#include "output/parsers/AC3Parser.h"

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

// The bit stream information behind bsmod, decoded when so much of it is there.
constexpr size_t kBsiBytes = 14;

// acmod, the mix levels and dsurmod that it says are there, and lfeon; A/52 clause 5.3.2.
void DecodeBsi(uint8_t bits, AC3Header* header) {
    header->acmod = bits >> 5;
    const bool hasCentre = (header->acmod & 1) != 0 && header->acmod != 1;
    const bool hasSurround = (header->acmod & 4) != 0;
    const bool isStereo = header->acmod == 2;
    const int before = 3 + 2 * (hasCentre + hasSurround + isStereo);
    header->lfeon = bits >> (7 - before) & 1;
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
    m_header.byteSwapped = reader.U16() == 0x770B;
    reader.Skip(2);  // crc1
    uint8_t sizes = reader.U8();
    uint8_t mode = reader.U8();
    if (m_header.byteSwapped)
        std::swap(sizes, mode);
    m_header.fscod = sizes >> 6;
    m_header.frmsizecod = sizes & 0x3F;
    m_header.bsid = mode >> 3;

    const auto bsi = reader.Take(kBsiBytes);
    if (reader.Ok())
        DecodeBsi(bsi[m_header.byteSwapped ? 1 : 0], &m_header);
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

}  // namespace tessel::cvneDataParser
