#include "tools/tessel/PidList.h"

#include <algorithm>
#include <charconv>
#include <regex>

#include "core/stream/TsHeader.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

uint32_t ParsePid(const std::string& text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char* const begin = text.data() + (hex ? 2 : 0);
    const char* const end = text.data() + text.size();
    uint32_t pid = 0;
    const auto [stop, error] = std::from_chars(begin, end, pid, hex ? 16 : 10);
    if (error != std::errc() || stop != end || pid >= kPidCount)
        throw Misuse("\"" + text + "\" is no PID; a PID is a number from 0 to 8191 (0x1FFF)");
    return pid;
}

PidRange ParsePidRange(const std::string& text) {
    const size_t hyphen = text.find('-');
    const uint32_t first = ParsePid(text.substr(0, hyphen));
    const uint32_t last = hyphen == std::string::npos ? first : ParsePid(text.substr(hyphen + 1));
    if (last < first)
        throw Misuse("\"" + text + "\": a range of PIDs begins with the lower one");
    return {first, last};
}

std::vector<std::string> SplitPids(const std::vector<std::string>& texts) {
    const std::regex joint("\\s*([-:,])\\s*"), ends("^\\s+|\\s+$"), blanks("\\s+");
    std::vector<std::string> parts;
    for (const std::string& text : texts) {
        const std::string joined = std::regex_replace(std::regex_replace(text, joint, "$1"), ends, "");
        const std::string list = std::regex_replace(joined, blanks, ",");
        for (size_t start = 0; start <= list.size();) {
            const size_t comma = std::min(list.find(',', start), list.size());
            parts.push_back(list.substr(start, comma - start));
            start = comma + 1;
        }
    }
    return parts;
}

std::vector<uint32_t> ParsePidList(const std::vector<std::string>& texts) {
    std::vector<uint32_t> pids;
    for (const std::string& part : SplitPids(texts)) {
        const PidRange range = ParsePidRange(part);
        for (uint32_t pid = range.first; pid <= range.last; ++pid)
            pids.push_back(pid);
    }
    return pids;
}

}  // namespace tessel::tool
