#include "output/parsers/MPAParser.h"

#include <array>

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel::cvneDataParser {

namespace {

// The values of layer; 0 is reserved.
constexpr uint32_t kLayer3 = 1;
constexpr uint32_t kLayer2 = 2;
constexpr uint32_t kLayer1 = 3;

constexpr uint32_t kForbiddenBitrate = 15;
constexpr uint32_t kReservedFrequency = 3;
constexpr uint32_t kSingleChannel = 3;

// kbit/s by bitrate_index.
using BitRates = std::array<uint16_t, 16>;
// ISO/IEC 11172-3 clause 2.4.2.3.
constexpr BitRates kLayer1Rates = {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0};
constexpr BitRates kLayer2Rates = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0};
constexpr BitRates kLayer3Rates = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
// ISO/IEC 13818-3 clause 2.4.2.3.
constexpr BitRates kLowLayer1Rates = {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0};
constexpr BitRates kLowLayer23Rates = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};

const BitRates* RatesOf(uint32_t id, uint32_t layer) {
    switch (layer) {
    case kLayer1:
        return id != 0 ? &kLayer1Rates : &kLowLayer1Rates;
    case kLayer2:
        return id != 0 ? &kLayer2Rates : &kLowLayer23Rates;
    case kLayer3:
        return id != 0 ? &kLayer3Rates : &kLowLayer23Rates;
    default:
        return nullptr;  // reserved
    }
}

}  // namespace

uint32_t MPAHeader::BitRate() const {
    const BitRates* rates = RatesOf(ID(), Layer());
    return rates != nullptr ? 1000u * rates->at(BitrateIndex()) : 0;
}

uint32_t MPAHeader::SampleRate() const {
    static constexpr std::array<uint32_t, 4> kRates = {44'100, 48'000, 32'000, 44'100};
    const uint32_t rate = kRates.at(SamplingFrequency());
    return ID() != 0 || SamplingFrequency() == kReservedFrequency ? rate : rate / 2;
}

std::optional<size_t> CMPAParser::SyncOffset(Bytes bytes) const {
    for (size_t i = 0; i + 3 < bytes.size(); ++i) {
        if (bytes[i] != 0xFF || bytes[i + 1] >> 4 != 0xF)
            continue;
        const uint8_t rates = bytes[i + 2];
        if (rates >> 4 != kForbiddenBitrate && (rates >> 2 & 3) != kReservedFrequency)
            return i;
    }
    return {};
}

void CMPAParser::DecodeHeader(Bytes bytes) {
    ByteReader reader(bytes);
    const uint32_t fields = reader.U32() & 0xFFFFF;
    m_header.bits = fields >> 12 | (fields >> 4 & 0xFF) << 8 | (fields & 0xF) << 20;
}

// Frames of layer I are whole slots of 4 bytes, and those of layer III at the lower rates have half the
// samples. The search for the true end takes the difference of the first; of the second, two frames are
// taken as one, which has the length, the samples and so the duration of both.
uint32_t CMPAParser::HeaderFrameLength() const {
    const uint32_t bitRate = m_header.BitRate();
    if (bitRate == 0)
        return 0;
    if (m_header.Layer() == kLayer1)
        return bitRate * 48 / m_header.SampleRate() + 4 * m_header.PaddingBit();
    return bitRate * 144 / m_header.SampleRate() + m_header.PaddingBit();
}

uint32_t CMPAParser::HeaderSamplesPerFrame() const {
    return m_header.Layer() == kLayer1 ? 384 : 1152;
}

FrameParser::DecodedFormat CMPAParser::HeaderFormat() const {
    return {m_header.Mode() == kSingleChannel ? 1u : 2u, m_header.SampleRate()};
}

}  // namespace tessel::cvneDataParser
