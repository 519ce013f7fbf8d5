#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/tessel/DemuxRun.h"
#include "tools/tessel/Memory.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

using Json = nlohmann::ordered_json;

const char* WhyNothingCame(const StreamResult& stream) {
    if (!stream.packetsCame && stream.plan.scrambled)
        return "nothing came out: it is scrambled";
    if (!stream.packetsCame || stream.plan.content == Content::kPackets)
        return "nothing came out: no packets came";
    if (stream.plan.content == Content::kSections)
        return "nothing came out: no section was whole, with a right CRC";
    if (!stream.timeStampCame)
        return "nothing came out: no time stamp came";
    return "nothing came out: to start, a stream needs a program map, half a second of clock references and 64 KiB of "
           "its program";
}

template <class T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

const char* ContentText(const std::optional<Content>& content) {
    if (!content)
        return "left out";
    switch (*content) {
    case Content::kElementary:
        return "es";
    case Content::kPackets:
        return "packets";
    case Content::kSections:
        break;
    }
    return "sections";
}

const char* ModeText(StreamingMode mode) {
    switch (mode) {
    case StreamingMode::kLive:
        return "live";
    case StreamingMode::kStream:
        return "strm";
    case StreamingMode::kFile:
        return "file";
    default:
        return "rec";
    }
}

std::string NoteOf(const StreamResult& stream) {
    std::string note = stream.plan.note;
    if (stream.plan.content && stream.counts.bytes == 0)
        note += (note.empty() ? "" : "; ") + std::string(WhyNothingCame(stream));
    return note;
}

Json ToJson(const StreamResult& stream) {
    const StreamPlan& plan = stream.plan;
    const std::string note = NoteOf(stream);
    return {{"service", plan.service},
            {"pid", plan.pid},
            {"content", plan.content ? Json(ContentText(plan.content)) : Json(nullptr)},
            {"media", plan.media != nullptr ? Json(plan.media->text) : Json(nullptr)},
            {"language", OrNull(plan.language)},
            {"file", OrNull(stream.file)},
            {"bytes", stream.counts.bytes},
            {"samples", stream.counts.samples},
            {"discontinuities", stream.counts.discontinuities},
            {"dropped_bytes", OrNull(stream.dropped)},
            {"first_time", OrNull(stream.counts.firstTime)},
            {"last_time", OrNull(stream.counts.lastTime)},
            {"note", note.empty() ? Json(nullptr) : Json(note)}};
}

}  // namespace

bool DemuxResult::IsEmpty() const {
    return std::none_of(streams.begin(), streams.end(), [](const auto& stream) { return stream.counts.bytes != 0; });
}

std::string DemuxAsJson(const DemuxResult& result) {
    const SpareMemory spare;
    Json streams = Json::array();
    for (const StreamResult& stream : result.streams)
        streams.push_back(ToJson(stream));
    const Json json = {{"mode", ModeText(result.mode)},
                       {"bytes", result.bytes},
                       {"errors", result.errors},
                       {"interrupted", result.interrupted},
                       {"aborted", result.aborted},
                       {"why_pushed", result.whyPushed.empty() ? Json(nullptr) : Json(result.whyPushed)},
                       {"streams", std::move(streams)}};
    return json.dump(2) + "\n";
}

std::string DemuxAsText(const DemuxResult& result) {
    std::vector<Row> rows = {{"SERVICE", "PID", "CONTENT", "MEDIA", "LANG", "BYTES", "DISCONT", "DROPPED", "NOTE"}};
    for (const StreamResult& stream : result.streams) {
        const StreamPlan& plan = stream.plan;
        rows.push_back({plan.service != 0 ? std::to_string(plan.service) : "-", std::to_string(plan.pid),
                        ContentText(plan.content), plan.media != nullptr ? plan.media->text : "-",
                        plan.language.value_or("-"), std::to_string(stream.counts.bytes),
                        std::to_string(stream.counts.discontinuities),
                        stream.dropped ? std::to_string(*stream.dropped) : "-", NoteOf(stream)});
    }
    std::string text = Columned(rows, "");
    text += std::to_string(result.bytes) + " bytes read";
    if (result.errors != 0)
        text += ", " + std::to_string(result.errors) + " errors";
    if (!result.whyPushed.empty())
        text += ", pushed and not played: " + result.whyPushed;
    return text + (result.interrupted ? ", interrupted\n" : "\n");
}

}  // namespace tessel::tool
