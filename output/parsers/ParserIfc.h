// What the parsers of compressed audio have in common for their clients.
#pragma once

#include <cstdint>

#include "platform/com/Result.h"

namespace tessel::cvneDataParser {

// There is no sync word in the bytes.
inline constexpr HRESULT kNoSyncWord = MakeResult(0xA0000001);

// The sync word of the next frame stands right behind the frame.
inline constexpr uint32_t kFrameConfirmed = 1;

struct FrameRecord {
    const uint8_t* start = nullptr;  // the sync word
    uint32_t length = 0;             // bytes, no more than there are
    uint32_t count = 0;              // 1 for a frame
    uint32_t samplesPerFrame = 0;    // of each channel
    uint32_t reserved = 0;
    uint32_t flags = 0;  // kFrameConfirmed or 0
};

// A null pointer is E_POINTER. A length below 0 counts as 0.
class CParserIfc {
public:
    // Bytes that a frame's header takes.
    virtual int32_t GetHeaderSize() const = 0;

    // Decodes the next header and describes the decoded audio by it. kNoSyncWord when there is none.
    virtual HRESULT ParseFormat(const uint8_t* buffer, int32_t length) = 0;

    // The next frame. complete is 1 when the sync word behind it was seen. A frame that reaches to the end,
    // or leaves no more than a header behind it, is returned unconfirmed and cut to what is there; any other
    // that no sync word follows is passed over. That narrows the search: the last of the bytes are then
    // looked at only when the caller begins again further on. kNoSyncWord when there is no frame; the record
    // is then empty.
    virtual HRESULT FindFrame(const uint8_t* buffer, int32_t length, uint32_t reserved, FrameRecord* frame,
                              BOOL* complete) = 0;

    // Moves the pointer on to the next sync word, and the length down with it. E_FAIL, with both as they
    // were, when there is none.
    virtual HRESULT FindSync(const uint8_t** data, int32_t* length) const = 0;

    virtual ~CParserIfc() = default;
};

}  // namespace tessel::cvneDataParser
