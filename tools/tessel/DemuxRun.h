// Carries out the plan of `tessel demux`, and what there is to say of it.
#pragma once

#include "tools/tessel/Demux.h"
#include "tools/tessel/SinkFilter.h"

namespace tessel::tool {

struct StreamResult {
    StreamPlan plan;
    SinkCounts counts;
    std::optional<std::string> file;  // absent where nothing was written
    bool packetsCame = true;          // clear ones; these two as far as they are known
    bool timeStampCame = true;
    std::optional<int64_t> dropped;  // bytes behind the first delivered one that never came out; absent if not counted
};

struct DemuxResult {
    StreamingMode mode = StreamingMode::kFile;
    int64_t bytes = 0;
    int64_t errors = 0;  // reported by pins
    bool interrupted = false;
    bool aborted = false;   // the file source ended before the file did
    std::string whyPushed;  // a file that the file source does not open
    std::vector<StreamResult> streams;

    bool IsEmpty() const;
};

// Failure when the input cannot be read, nothing that is asked for is there, or a file cannot be written.
DemuxResult Demux(InputFile& input, const DemuxRequest& request);

std::string DemuxAsJson(const DemuxResult& result);
std::string DemuxAsText(const DemuxResult& result);

}  // namespace tessel::tool
