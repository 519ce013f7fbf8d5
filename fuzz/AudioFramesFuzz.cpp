// Any bytes as audio: each search by itself, then a walk in payloads of a size that the input chooses.
#include <algorithm>

#include "fuzz/FuzzSupport.h"
#include "output/parsers/AC3Parser.h"
#include "output/parsers/AudioFrameWalk.h"
#include "output/parsers/MPAParser.h"

namespace tessel::cvneDataParser {
namespace {

void Search(FrameParser& parser, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto length = static_cast<int32_t>(bytes.size());
        FrameRecord frame;
        BOOL complete = 0;
        const HRESULT result = parser.FindFrame(bytes.data(), length, 0, &frame, &complete);
        Require(result == S_OK || (result == kNoSyncWord && frame.start == nullptr && complete == 0));
        if (result != S_OK)
            return;
        const auto offset = static_cast<size_t>(frame.start - bytes.data());
        Require(offset < bytes.size() && frame.length > 0 && frame.length <= bytes.size() - offset);
        Require(frame.length <= parser.WholeLength() && parser.WholeLength() <= 3840 + 32);
        Require(parser.Format().nChannels >= 1 && parser.Format().nChannels <= 6);
        Require(parser.Format().nSamplesPerSec >= 8000);

        const uint8_t* sync = frame.start;
        auto left = static_cast<int32_t>(bytes.size() - offset);
        Require(parser.FindSync(&sync, &left) == S_OK && sync == frame.start);
        if (complete != 0) {
            sync += frame.length;
            left -= static_cast<int32_t>(frame.length);
            const uint8_t* next = sync;
            Require(frame.length == parser.WholeLength());
            Require(parser.FindSync(&next, &left) == S_OK && next == sync);
        }
        bytes = bytes.subspan(offset + frame.length);
    }
}

void Walk(FrameParser& parser, std::span<const uint8_t> bytes, size_t step) {
    AudioFrameWalk walk(parser);
    REFERENCE_TIME time = 0;
    while (!bytes.empty()) {
        const auto payload = bytes.first(std::min(step, bytes.size()));
        Require(walk.Append(payload) == S_OK);
        Require(walk.Time() >= time);
        time = walk.Time();
        bytes = bytes.subspan(payload.size());
    }
}

}  // namespace
}  // namespace tessel::cvneDataParser

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel::cvneDataParser;
    if (size < 2)
        return 0;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    CAC3Parser ac3;
    CMPAParser mpa;
    for (FrameParser* parser : {static_cast<FrameParser*>(&ac3), static_cast<FrameParser*>(&mpa)}) {
        parser->ParseFormat(bytes.data(), static_cast<int32_t>(bytes.size()));
        Search(*parser, bytes);
        Walk(*parser, bytes, 1 + data[0]);
    }
    return 0;
}
