// `tessel demux`: what is asked for, and the plan of pins that delivers it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/TsFilterBase.h"
#include "tools/tessel/ServiceFinder.h"
#include "tools/tessel/TimeRange.h"

namespace tessel::tool {

enum class Content { kElementary, kPackets, kSections };

struct PidRequest {
    uint32_t pid;
    std::optional<Content> content;  // none: whatever suits the PID
    bool ifThere = false;            // of a range, which names more than there are
};

// "256", "0x11:sections", "256:es,257-260:packets"; Misuse for anything else.
std::vector<PidRequest> ParsePidRequests(const std::vector<std::string>& texts);
// "rec", "strm" or "live"; Misuse for anything else.
StreamingMode ParseMode(const std::string& text);

struct DemuxRequest {
    StreamingMode mode = StreamingMode::kRecording;  // kFile: played by the file source where it opens the file
    std::optional<std::string> service;              // id or name; none for all
    std::optional<std::string> audio;                // language
    std::vector<PidRequest> pids;                    // none for those of the services
    std::optional<std::string> directory;            // none: nothing is written
    bool timestamps = false;
    TimeSpan span;  // of a file that the file source plays

    bool Wants(const ServiceInfo& service) const;
};

// A stream of the plan. Without content it is only mentioned: nothing of it can be delivered.
struct StreamPlan {
    uint32_t service = 0;  // 0 for a PID of none
    uint32_t pid = 0;
    std::optional<Content> content;
    const MediaKind* media = nullptr;
    std::optional<std::string> language;
    std::string note;        // why it is not an elementary stream, or not there at all
    bool alone = false;      // it may never start, so it gets a splitter of its own
    bool scrambled = false;  // all that came of it at the beginning
    size_t splitter = 0;

    std::string FileName() const;
};

// A filter has ten pins; one of them is the section pin.
inline constexpr size_t kPinsOfSplitter = 9;

struct DemuxPlan {
    std::vector<StreamPlan> streams;
    size_t splitters = 0;
};

// Failure when what is asked for is not there.
DemuxPlan MakePlan(const DemuxRequest& request, const FoundServices& found, const PacketMeter& meter);

}  // namespace tessel::tool
