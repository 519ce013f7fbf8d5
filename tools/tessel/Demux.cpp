#include "tools/tessel/Demux.h"

#include <algorithm>
#include <map>
#include <set>

#include "tools/tessel/Failure.h"
#include "tools/tessel/PidList.h"

namespace tessel::tool {

namespace {

const struct {
    const char* text;
    Content content;
} kContents[] = {{"es", Content::kElementary}, {"packets", Content::kPackets}, {"sections", Content::kSections}};

constexpr uint32_t kLastTablePid = 0x1F;
constexpr uint32_t kPsipBasePid = 0x1FFB;

void ParsePidRequest(const std::string& text, std::vector<PidRequest>& requests) {
    const size_t colon = text.find(':');
    const PidRange range = ParsePidRange(text.substr(0, colon));
    std::optional<Content> content;
    if (colon != std::string::npos) {
        for (const auto& row : kContents)
            if (text.substr(colon + 1) == row.text)
                content = row.content;
        if (!content)
            throw Misuse("\"" + text + "\": behind the PID may come :es, :packets or :sections");
    }
    for (uint32_t pid = range.first; pid <= range.last; ++pid)
        requests.push_back({pid, content, range.first != range.last});
}

bool IsAudio(const ComponentInfo& component) {
    return component.media != nullptr && component.media->majortype == MEDIATYPE_Audio;
}

const char* Explain(Obstacle obstacle) {
    switch (obstacle) {
    case Obstacle::kNoMediaType:
        return "has no media type";
    case Obstacle::kNoPin:
        return "is not delivered as an elementary stream";
    case Obstacle::kScrambled:
        return "is scrambled";
    case Obstacle::kNoClock:
        return "has no clock references";
    case Obstacle::kNoPackets:
        return "has no packets";
    case Obstacle::kNoTimeStamp:
        return "has no time stamp";
    case Obstacle::kNone:
        break;
    }
    return "";
}

// What is final: more bytes would not make an elementary stream of it.
bool CanNeverBe(Obstacle obstacle) {
    return obstacle == Obstacle::kNoMediaType || obstacle == Obstacle::kNoPin;
}

class Planner {
public:
    Planner(const DemuxRequest& request, const FoundServices& found, const PacketMeter& meter)
        : m_request(request), m_found(found), m_meter(meter) {}

    DemuxPlan Make() {
        if (m_request.service || m_request.pids.empty())
            AddServices();
        for (const PidRequest& pid : m_request.pids)
            if (!pid.ifThere || m_meter.IsPresent(pid.pid))
                AddPid(pid);
        ShareOut();
        return std::move(m_plan);
    }

private:
    void AddServices() {
        bool any = false, languageFound = false;
        for (const ServiceInfo& service : m_found.services) {
            if (!m_request.Wants(service))
                continue;
            any = true;
            for (const ComponentInfo& component : service.components) {
                if (m_request.audio && IsAudio(component)) {
                    if (component.language != m_request.audio)
                        continue;
                    languageFound = true;
                }
                AddComponent(service, component);
            }
            if (!service.hasProgramMap)
                Mention(service.id, service.pmtPid.value_or(0), "has no usable program map");
        }
        if (!any && m_request.service)
            throw Failure("there is no service \"" + *m_request.service +
                          "\"; `tessel info` lists those that there are");
        if (!any)
            throw Failure("no services were found; --pid takes PIDs that no service names");
        if (m_request.audio && !languageFound)
            throw Failure("there is no audio in the language \"" + *m_request.audio +
                          "\"; `tessel info` lists those that there are");
    }

    void AddComponent(const ServiceInfo& service, const ComponentInfo& component) {
        StreamPlan stream = Describe(service, component);
        const Obstacle obstacle = ObstacleOf(service, component, m_meter);
        stream.content = Content::kElementary;
        if (obstacle != Obstacle::kNone) {
            const bool nothingComes =
                obstacle == Obstacle::kScrambled || (m_found.wholeInput && m_meter.Of(component.pid).packets == 0);
            stream.content = nothingComes ? std::nullopt : std::optional(Content::kPackets);
            stream.note = Explain(nothingComes && obstacle != Obstacle::kScrambled ? Obstacle::kNoPackets : obstacle);
            stream.note += nothingComes ? ": left out" : ": written as packets";
        }
        Add(std::move(stream));
    }

    void AddPid(const PidRequest& request) {
        const ServiceInfo* service = nullptr;
        const ComponentInfo* component = nullptr;
        for (const ServiceInfo& candidate : m_found.services) {
            for (const ComponentInfo& one : candidate.components) {
                if (one.pid == request.pid && component == nullptr) {
                    service = &candidate;
                    component = &one;
                }
            }
        }
        if (!request.content && component != nullptr)
            return AddComponent(*service, *component);
        StreamPlan stream;
        if (component != nullptr)
            stream = Describe(*service, *component);
        stream.pid = request.pid;
        if (component == nullptr)
            stream.service = ServiceOfTable(request.pid);
        stream.content = request.content.value_or(HasTables(request.pid) ? Content::kSections : Content::kPackets);
        if (stream.content == Content::kElementary) {
            const std::string name = "PID " + std::to_string(request.pid);
            if (component == nullptr)
                throw Failure(name + " is in no program map, so it cannot be an elementary stream; ask for :packets");
            const Obstacle obstacle = ObstacleOf(*service, *component, m_meter);
            if (CanNeverBe(obstacle))
                throw Failure(name + " " + Explain(obstacle) + "; ask for :packets");
            if (obstacle != Obstacle::kNone) {
                stream.alone = true;
                stream.note = std::string(Explain(obstacle)) + " at the beginning";
            }
        }
        Add(std::move(stream));
    }

    StreamPlan Describe(const ServiceInfo& service, const ComponentInfo& component) const {
        StreamPlan stream;
        stream.service = service.id;
        stream.pid = component.pid;
        stream.media = component.media;
        stream.language = component.language;
        return stream;
    }

    // The first service that has its program map there.
    uint32_t ServiceOfTable(uint32_t pid) const {
        for (const ServiceInfo& service : m_found.services)
            if (service.pmtPid == pid)
                return service.id;
        return 0;
    }
    bool HasTables(uint32_t pid) const {
        return pid <= kLastTablePid || pid == kPsipBasePid || ServiceOfTable(pid) != 0;
    }

    void Mention(uint32_t service, uint32_t pid, const char* note) {
        StreamPlan stream;
        stream.service = service;
        stream.pid = pid;
        stream.note = note;
        m_plan.streams.push_back(std::move(stream));
    }

    // A PID that two services share is written once, for the first.
    void Add(StreamPlan stream) {
        const PidCounts& counts = m_meter.Of(stream.pid);
        stream.scrambled = counts.scrambled && counts.packets == 0;
        if (m_seen.insert({stream.pid, stream.content}).second)
            m_plan.streams.push_back(std::move(stream));
    }

    // Streams of a service stay on one splitter, where they share a timeline.
    void ShareOut() {
        std::map<uint32_t, std::vector<StreamPlan*>> services;
        std::vector<size_t> used;
        for (StreamPlan& stream : m_plan.streams) {
            if (!stream.content)
                continue;
            if (stream.alone) {
                stream.splitter = used.size();
                used.push_back(kPinsOfSplitter);
            } else {
                services[stream.service].push_back(&stream);
            }
        }
        for (const auto& [id, streams] : services) {
            // A part begins where a picture of the service begins.
            size_t splitter = m_request.span.IsWhole() ? 0 : used.size();
            while (splitter < used.size() &&
                   used[splitter] + std::min(streams.size(), kPinsOfSplitter) > kPinsOfSplitter)
                ++splitter;
            for (StreamPlan* stream : streams) {
                while (splitter < used.size() && used[splitter] == kPinsOfSplitter)
                    ++splitter;
                if (splitter == used.size())
                    used.push_back(0);
                stream->splitter = splitter;
                ++used[splitter];
            }
        }
        m_plan.splitters = used.size();
    }

    const DemuxRequest& m_request;
    const FoundServices& m_found;
    const PacketMeter& m_meter;
    std::set<std::pair<uint32_t, std::optional<Content>>> m_seen;
    DemuxPlan m_plan;
};

}  // namespace

std::vector<PidRequest> ParsePidRequests(const std::vector<std::string>& texts) {
    std::vector<PidRequest> requests;
    for (const std::string& text : SplitPids(texts))
        ParsePidRequest(text, requests);
    return requests;
}

StreamingMode ParseMode(const std::string& text) {
    if (text == "rec")
        return StreamingMode::kRecording;
    if (text == "strm")
        return StreamingMode::kStream;
    if (text == "live")
        return StreamingMode::kLive;
    throw Misuse("\"" + text + "\" is no mode; it is rec, strm or live");
}

bool DemuxRequest::Wants(const ServiceInfo& candidate) const {
    return !service || *service == std::to_string(candidate.id) || service == candidate.name;
}

std::string StreamPlan::FileName() const {
    std::string extension = "ts";
    if (content == Content::kSections)
        extension = "psi";
    if (content == Content::kElementary)
        extension = media->extension;
    return std::to_string(service) + "-" + std::to_string(pid) + "." + extension;
}

DemuxPlan MakePlan(const DemuxRequest& request, const FoundServices& found, const PacketMeter& meter) {
    DemuxPlan plan = Planner(request, found, meter).Make();
    const bool any = std::any_of(plan.streams.begin(), plan.streams.end(),
                                 [](const StreamPlan& stream) { return stream.content.has_value(); });
    if (any)
        return plan;
    std::string reasons;
    for (const StreamPlan& stream : plan.streams)
        reasons += (reasons.empty() ? "" : ", ") + std::string("PID ") + std::to_string(stream.pid) + " " + stream.note;
    throw Failure("nothing can be delivered: " + (!reasons.empty()       ? reasons
                                                  : request.pids.empty() ? "the services have no streams"
                                                                         : "none of those PIDs is there"));
}

}  // namespace tessel::tool
