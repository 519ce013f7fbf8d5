#include "output/parsers/AudioFrameWalk.h"

#include <new>

#include "output/parsers/AC3Parser.h"
#include "output/parsers/MPAParser.h"
#include "platform/media/MediaType.h"

namespace tessel::cvneDataParser {

HRESULT CreateParser(const GUID& subtype, std::unique_ptr<FrameParser>* parser) {
    if (parser == nullptr)
        return E_POINTER;
    parser->reset();
    if (subtype == MEDIASUBTYPE_AAC_AUDIO)
        return S_FALSE;
    if (subtype == MEDIASUBTYPE_DOLBY_AC3)
        parser->reset(new (std::nothrow) CAC3Parser);
    else
        parser->reset(new (std::nothrow) CMPAParser);
    return *parser ? S_OK : E_OUTOFMEMORY;
}

void AudioFrameWalk::Restart(REFERENCE_TIME time) {
    m_cache.Clear();
    m_time = time;
}

HRESULT AudioFrameWalk::Append(std::span<const uint8_t> payload) {
    if (m_cache.Capacity() == 0 && !m_cache.Allocate(kCacheSize))
        return E_OUTOFMEMORY;
    if (payload.size() > kCacheSize - static_cast<uint32_t>(m_cache.Available()))
        return E_FAIL;
    m_cache.Append(payload.data(), static_cast<int32_t>(payload.size()));
    Walk();
    return S_OK;
}

void AudioFrameWalk::Walk() {
    const int32_t header = m_parser.GetHeaderSize();
    while (m_cache.Available() >= header) {
        const uint8_t* begin = m_cache.ReadPointer();
        int32_t left = m_cache.Available();
        const uint8_t* end = begin + left;

        FrameRecord frame;
        BOOL complete = 0;
        if (m_parser.FindFrame(begin, left, 0, &frame, &complete) == S_OK) {
            const uint8_t* frameEnd = frame.start + frame.length;
            if (IsTaken(frame, complete != 0, end)) {
                m_time += REFERENCE_TIME{frame.samplesPerFrame} * 10'000'000 / m_parser.Format().nSamplesPerSec;
                m_cache.Skip(static_cast<int32_t>(frameEnd - begin));
                continue;
            }
            if (end - frameEnd <= header)
                return;  // more bytes will tell
        }

        // The first sync word is a false one. The search behind it did not look at all of the bytes.
        const uint8_t* sync = begin;
        if (m_parser.FindSync(&sync, &left) != S_OK) {
            m_cache.Skip(m_cache.Available() - (header - 1));
            return;
        }
        m_cache.Skip(static_cast<int32_t>(sync + 1 - begin));
    }
}

bool AudioFrameWalk::IsTaken(const FrameRecord& frame, bool complete, const uint8_t* end) const {
    return complete || (frame.start + frame.length == end && frame.length == m_parser.WholeLength());
}

}  // namespace tessel::cvneDataParser
