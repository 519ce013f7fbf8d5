// The walk over the audio frames of an elementary stream, to know at what time it has come to.
#pragma once

#include <memory>
#include <span>

#include "Classes/MultiPlatform/ByteBuffer.h"
#include "output/parsers/FrameParser.h"
#include "platform/com/Guid.h"
#include "platform/media/ReferenceTime.h"

namespace tessel::cvneDataParser {

// The parser for the audio of a media subtype. S_FALSE, and no parser, for audio whose frames cannot be
// found (MEDIASUBTYPE_AAC_AUDIO). E_OUTOFMEMORY.
HRESULT CreateParser(const GUID& subtype, std::unique_ptr<FrameParser>* parser);

// Gets the payloads of one stream's packets in order, without their PES headers.
class AudioFrameWalk {
public:
    static constexpr uint32_t kCacheSize = 20'480;

    // parser must outlive the walk.
    explicit AudioFrameWalk(FrameParser& parser) : m_parser(parser) {}

    // A time stamp: the next byte appended begins at time. Bytes of an unfinished frame are forgotten.
    void Restart(REFERENCE_TIME time);

    // Takes payload and walks over all frames that are now whole. A frame counts when the sync word of the
    // next follows it, or when it ends where the payload does. E_FAIL when payload does not fit behind what
    // is left of the ones before (kCacheSize); E_OUTOFMEMORY.
    HRESULT Append(std::span<const uint8_t> payload);

    // The time of the last restart (0 without one) and the durations of the frames since.
    REFERENCE_TIME Time() const { return m_time; }

private:
    void Walk();
    bool IsTaken(const FrameRecord& frame, bool complete, const uint8_t* end) const;

    FrameParser& m_parser;
    ByteBuffer m_cache;
    REFERENCE_TIME m_time = 0;
};

}  // namespace tessel::cvneDataParser
