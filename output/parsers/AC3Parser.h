// AC-3 syncframes, A/52 clause 5.3; also those whose 16-bit words have their two bytes swapped.
#pragma once

#include "output/parsers/FrameParser.h"

namespace tessel::cvneDataParser {

// The names are those of A/52 clause 5.4: what tells a frame's length and format.
struct AC3Header {
    bool byteSwapped = false;
    uint32_t fscod = 0;
    uint32_t frmsizecod = 0;
    uint32_t bsid = 0;
    // 0 when too few bytes were there to decode them.
    uint32_t acmod = 0;
    uint32_t lfeon = 0;
};

class CAC3Parser final : public FrameParser {
public:
    int32_t GetHeaderSize() const override { return 6; }

protected:
    std::optional<size_t> SyncOffset(Bytes bytes) const override;
    void DecodeHeader(Bytes bytes) override;
    uint32_t HeaderFrameLength() const override;
    uint32_t HeaderSamplesPerFrame() const override { return 1536; }
    DecodedFormat HeaderFormat() const override;
    uint32_t EndTolerance() const override { return 0; }

private:
    AC3Header m_header;
};

}  // namespace tessel::cvneDataParser
