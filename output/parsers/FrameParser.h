// The search for frames, the same for all kinds of audio: a header says how long its frame is, and the
// frame counts when another header follows it there.
#pragma once

#include <optional>
#include <span>

#include "output/parsers/ParserIfc.h"
#include "platform/media/WaveFormat.h"

namespace tessel::cvneDataParser {

class FrameParser : public CParserIfc {
public:
    HRESULT ParseFormat(const uint8_t* buffer, int32_t length) final;
    HRESULT FindFrame(const uint8_t* buffer, int32_t length, uint32_t reserved, FrameRecord* frame,
                      BOOL* complete) final;
    HRESULT FindSync(const uint8_t** data, int32_t* length) const final;

    // The decoded audio by the last header that was decoded: 16-bit PCM.
    const WAVEFORMATEX& Format() const { return m_format; }
    // Bytes of the last frame before it was cut to what was there.
    uint32_t WholeLength() const { return m_wholeLength; }

protected:
    using Bytes = std::span<const uint8_t>;

    struct DecodedFormat {
        uint32_t channels;
        uint32_t samplesPerSec;
    };

    // Offset of the first sync word whose header lies in bytes; those of impossible fields do not count.
    virtual std::optional<size_t> SyncOffset(Bytes bytes) const = 0;
    // Decodes the header that SyncOffset found at the front of bytes.
    virtual void DecodeHeader(Bytes bytes) = 0;

    // By the header decoded last. A length of 0 is one that the header does not tell.
    virtual uint32_t HeaderFrameLength() const = 0;
    virtual uint32_t HeaderSamplesPerFrame() const = 0;
    virtual DecodedFormat HeaderFormat() const = 0;

    // How many bytes before the expected end the sync word of the next frame may stand.
    virtual uint32_t EndTolerance() const = 0;

private:
    size_t HeaderBytes() const { return static_cast<size_t>(GetHeaderSize()); }
    // Decodes the next header; what is left of bytes begins with it. False when there is none.
    bool DecodeNext(Bytes* bytes);
    size_t CorrectedLength(Bytes bytes, size_t length) const;
    std::optional<size_t> ConfirmedLength(Bytes bytes, size_t length) const;

    WAVEFORMATEX m_format;
    uint32_t m_wholeLength = 0;
};

}  // namespace tessel::cvneDataParser
