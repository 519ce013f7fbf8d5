// MPEG audio frames: ISO/IEC 11172-3 clause 2.4.1.3, and the lower sampling rates of ISO/IEC 13818-3
// clause 2.4.1. The sync word has all its 12 bits, so extensions to even lower rates are not found.
#pragma once

#include "output/parsers/FrameParser.h"

namespace tessel::cvneDataParser {

// The 20 bits behind the sync word, in one word whose bytes follow each other in header order from the
// lowest on; the last byte has four bits.
struct MPAHeader {
    uint32_t bits = 0;

    uint32_t ID() const { return Field(7, 1); }  // 1 for ISO/IEC 11172-3
    uint32_t Layer() const { return Field(5, 2); }
    uint32_t BitrateIndex() const { return Field(0, 4); }
    uint32_t SamplingFrequency() const { return Field(14, 2); }
    uint32_t PaddingBit() const { return Field(13, 1); }
    uint32_t Mode() const { return Field(10, 2); }

    // Bits a second; 0 for free format and for the layer that is reserved.
    uint32_t BitRate() const;
    uint32_t SampleRate() const;

private:
    uint32_t Field(uint32_t shift, uint32_t count) const { return bits >> shift & ((1u << count) - 1); }
};

class CMPAParser final : public FrameParser {
public:
    int32_t GetHeaderSize() const override { return 4; }

protected:
    std::optional<size_t> SyncOffset(Bytes bytes) const override;
    void DecodeHeader(Bytes bytes) override;
    uint32_t HeaderFrameLength() const override;
    uint32_t HeaderSamplesPerFrame() const override;
    DecodedFormat HeaderFormat() const override;
    uint32_t EndTolerance() const override { return 1; }

private:
    MPAHeader m_header;
};

}  // namespace tessel::cvneDataParser
