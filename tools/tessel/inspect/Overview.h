// The stream at a glance: every PID with what it carries, and the outputs with what is mapped on them.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "core/stream/TsHeader.h"
#include "proppages/PageFilter.h"
#include "tools/tessel/inspect/PageHost.h"
#include "tools/tessel/inspect/Playback.h"

namespace tessel::tool {

// Asked by one thread.
class Overview {
public:
    explicit Overview(Playback& playback);

    // {"state", "input", "pids", "outputs", "services", ...}
    Json Make();
    // Outputs with PIDs that lead nowhere.
    bool NeedsOutputs() const { return m_needsOutputs; }
    // PIDs that packets have come of.
    size_t PidCount() const { return m_pidCount; }

private:
    // Packets by a time of the stream's clock, to tell rates.
    struct Mark {
        REFERENCE_TIME time = 0;
        uint64_t all = 0;
        std::vector<std::pair<uint32_t, uint64_t>> packets;
    };
    Json Pids();
    Json Outputs();
    Json Services();
    Mark Now() const;
    // In bit/s; none while no time has passed.
    std::optional<int64_t> Rate(uint64_t packets, uint64_t before) const;
    uint64_t Before(uint32_t pid) const;

    Playback& m_playback;
    page::Filter m_filter;
    std::deque<Mark> m_marks;
    Mark m_now;
    std::map<uint32_t, std::string> m_words;  // what PIDs carry, by the services
    bool m_needsOutputs = false;
    size_t m_pidCount = 0;
};

}  // namespace tessel::tool
