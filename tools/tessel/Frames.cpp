#include "tools/tessel/Frames.h"

#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "output/parsers/AudioFrameWalk.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/FrameList.h"
#include "tools/tessel/Memory.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/Seconds.h"
#include "tools/tessel/ServiceFinder.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

namespace {

constexpr size_t kReadSize = 256 * 1024;

std::string AsText(const AudioFrame& frame) {
    char text[128];
    std::snprintf(text, sizeof(text), "%12lld %8u %8u %6u %8u  ", static_cast<long long>(frame.position), frame.length,
                  frame.samples, frame.rate, frame.channels);
    char time[32] = "-";
    if (frame.time)
        std::snprintf(time, sizeof(time), "%.6f", *frame.time);
    return std::string(text) + time + "\n";
}

std::string AsJson(const AudioFrame& frame) {
    const SpareMemory spare;
    using Json = nlohmann::ordered_json;
    return Json{{"position", frame.position}, {"length", frame.length},
                {"samples", frame.samples},   {"rate", frame.rate},
                {"channels", frame.channels}, {"time", frame.time ? Json(RoundedSeconds(*frame.time)) : Json()}}
               .dump() +
           "\n";
}

std::unique_ptr<cvneDataParser::FrameParser> ParserOf(Feed& feed, uint32_t pid) {
    PacketMeter meter;
    const FoundServices found = FindServices(feed, meter, [](const ServiceInfo&) { return false; });
    const std::string where = feed.Input().Name() + ": PID " + std::to_string(pid) + " ";
    for (const ServiceInfo& service : found.services)
        for (const ComponentInfo& component : service.components) {
            if (component.pid != pid)
                continue;
            std::unique_ptr<cvneDataParser::FrameParser> parser;
            if (component.media != nullptr && component.media->majortype == MEDIATYPE_Audio &&
                cvneDataParser::CreateParser(component.media->subtype, &parser) == S_OK)
                return parser;
            throw Failure(where + "is " +
                          (component.media != nullptr ? component.media->text : component.streamTypeName) +
                          "; frames are found in MPEG audio and AC-3");
        }
    if (meter.FoundPackets())
        throw Failure(where + "is in no program map; `tessel info` lists those that are");
    throw Failure(NoStreamText(feed.Input()));
}

}  // namespace

void PrintFrames(Feed& feed, uint32_t pid, bool json) {
    const auto parser = ParserOf(feed, pid);
    const ComPtr<StreamReader> reader = MakeStreamReader();
    std::string text = json ? "" : "    POSITION   LENGTH  SAMPLES   RATE CHANNELS  TIME\n";
    int64_t count = 0;
    FrameList frames(pid, *parser, [&](const AudioFrame& frame) {
        text += json ? AsJson(frame) : AsText(frame);
        ++count;
    });
    reader->Router().Attach(&frames);
    reader->Router().Want(&frames, pid, true);
    feed.Restart();
    std::vector<uint8_t> buffer(kReadSize);
    // On a terminal the lines themselves are progress.
    std::optional<Progress> progress;
    if (isatty(STDOUT_FILENO) == 0)
        progress.emplace(feed.Input().Size());
    for (size_t got = feed.Fill(buffer); got != 0; got = feed.Fill(buffer)) {
        reader->Push(std::span(buffer).first(got));
        if (progress)
            progress->Show(feed.Input().BytesRead());
        if (count != 0) {
            Print(text);
            text.clear();
        }
    }
    progress.reset();
    reader->Finish();
    reader->Router().Detach(&frames);
    frames.Finish();
    if (count == 0)
        throw Failure(feed.Input().Name() + ": no clear audio frame on PID " + std::to_string(pid));
    Print(text);
}

}  // namespace tessel::tool
