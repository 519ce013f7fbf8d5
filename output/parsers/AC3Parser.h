// AC-3 syncframes, A/52 clause 5.3; also those whose 16-bit words have their two bytes swapped.
#pragma once

#include "output/parsers/FrameParser.h"
#include "platform/media/ReferenceTime.h"

namespace tessel::cvneDataParser {

// The names are those of A/52 clause 5.4. What a header does not have is 0, but for the two mix levels.
struct AC3Header {
    uint32_t bsiValid = 0;  // 1 when enough bytes were there to decode the fields from acmod on
    uint32_t byteSwapped = 0;
    uint32_t fscod = 0;
    uint32_t frmsizecod = 0;
    uint32_t bsid = 0;
    uint32_t bsmod = 0;
    uint32_t acmod = 0;
    uint32_t cmixlev = 0;    // 3 for none
    uint32_t surmixlev = 0;  // 3 for none
    uint32_t dsurmod = 0;
    uint32_t lfeon = 0;
    uint32_t dialnorm = 0;
    uint32_t compre = 0;
    uint32_t compr = 0;
    uint32_t langcode = 0;
    uint32_t langcod = 0;
    uint32_t audprodie = 0;
    uint32_t mixlevel = 0;
    uint32_t roomtyp = 0;
    uint32_t dialnorm2 = 0;  // this and the next seven: the second of two mono channels (acmod 0)
    uint32_t compr2e = 0;
    uint32_t compr2 = 0;
    uint32_t langcod2e = 0;
    uint32_t langcod2 = 0;
    uint32_t audprodi2e = 0;
    uint32_t mixlevel2 = 0;
    uint32_t roomtyp2 = 0;
    uint32_t copyrightb = 0;
    uint32_t origbs = 0;
    uint32_t timecod1e = 0;
    uint32_t timecod2e = 0;
    uint32_t timecod1 = 0;
    uint32_t timecod2 = 0;
};

class CAC3Parser final : public FrameParser {
public:
    int32_t GetHeaderSize() const override { return 6; }

    const AC3Header& Header() const { return m_header; }
    // The coarse and the fine half of the time code, A/52 clauses 5.4.2.27 and 5.4.2.28; 0 for a missing one.
    REFERENCE_TIME TimeCode1() const;
    REFERENCE_TIME TimeCode2() const;

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
