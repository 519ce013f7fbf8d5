#include "output/parsers/FrameParser.h"

#include <algorithm>

namespace tessel::cvneDataParser {

namespace {

// Where the search for a frame's true end begins, before the end that its header tells, and how far it goes.
constexpr size_t kSearchBefore = 4;
constexpr size_t kSearchLength = 32;

std::span<const uint8_t> AsSpan(const uint8_t* buffer, int32_t length) {
    return {buffer, length > 0 ? static_cast<size_t>(length) : 0};
}

}  // namespace

HRESULT FrameParser::FindSync(const uint8_t** data, int32_t* length) const {
    if (data == nullptr || length == nullptr || *data == nullptr)
        return E_POINTER;
    const auto offset = SyncOffset(AsSpan(*data, *length));
    if (!offset)
        return E_FAIL;
    *data += *offset;
    *length -= static_cast<int32_t>(*offset);
    return S_OK;
}

HRESULT FrameParser::ParseFormat(const uint8_t* buffer, int32_t length) {
    if (buffer == nullptr)
        return E_POINTER;
    Bytes bytes = AsSpan(buffer, length);
    return DecodeNext(&bytes) ? S_OK : kNoSyncWord;
}

HRESULT FrameParser::FindFrame(const uint8_t* buffer, int32_t length, uint32_t /*reserved*/, FrameRecord* frame,
                               BOOL* complete) {
    if (frame == nullptr || complete == nullptr)
        return E_POINTER;
    *frame = {};
    *complete = 0;
    if (buffer == nullptr)
        return E_POINTER;

    Bytes bytes = AsSpan(buffer, length);
    while (DecodeNext(&bytes)) {
        size_t found = HeaderFrameLength();
        if (found != 0) {
            found = CorrectedLength(bytes, found);
            m_wholeLength = static_cast<uint32_t>(found);
            found = std::min(found, bytes.size());
            const bool open = bytes.size() - found <= HeaderBytes();
            const auto confirmed = open ? std::nullopt : ConfirmedLength(bytes, found);
            if (open || confirmed) {
                if (confirmed)
                    m_wholeLength = static_cast<uint32_t>(*confirmed);
                *frame = {bytes.data(),
                          static_cast<uint32_t>(confirmed.value_or(found)),
                          1,
                          HeaderSamplesPerFrame(),
                          0,
                          confirmed ? kFrameConfirmed : 0};
                *complete = confirmed ? 1 : 0;
                return S_OK;
            }
        }
        bytes = bytes.subspan(1, bytes.size() - found - 1);
    }
    return kNoSyncWord;
}

bool FrameParser::DecodeNext(Bytes* bytes) {
    const auto offset = SyncOffset(*bytes);
    if (!offset)
        return false;
    *bytes = bytes->subspan(*offset);
    DecodeHeader(*bytes);
    const DecodedFormat format = HeaderFormat();
    const auto blockAlign = static_cast<uint16_t>(format.channels * sizeof(int16_t));
    m_format = {WAVE_FORMAT_PCM,
                static_cast<uint16_t>(format.channels),
                format.samplesPerSec,
                blockAlign * format.samplesPerSec,
                blockAlign,
                16,
                0};
    return true;
}

// The distance to the next sync word when it stands near the end that the header tells: encoders pad
// frames in ways that it does not tell. A sync word at that very end comes first, for one byte before it a
// swapped one seems to begin whenever a frame's last byte is 0x77.
size_t FrameParser::CorrectedLength(Bytes bytes, size_t length) const {
    if (length + HeaderBytes() >= bytes.size() || SyncOffset(bytes.subspan(length, HeaderBytes())))
        return length;
    // A sync word inside the header would be the header's own.
    const size_t from = std::max(length, kSearchBefore + HeaderBytes()) - kSearchBefore;
    const Bytes window = bytes.subspan(from);
    const auto offset = SyncOffset(window.first(std::min(window.size(), kSearchLength)));
    return offset ? from + *offset : length;
}

// The length up to the sync word behind the frame; bytes has more than a header behind length.
std::optional<size_t> FrameParser::ConfirmedLength(Bytes bytes, size_t length) const {
    const size_t tolerance = std::min<size_t>(length, EndTolerance());
    const auto offset = SyncOffset(bytes.subspan(length - tolerance, tolerance + HeaderBytes()));
    return offset ? std::optional(length - tolerance + *offset) : std::nullopt;
}

}  // namespace tessel::cvneDataParser
