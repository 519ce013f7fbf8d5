#include "tools/tessel/PidList.h"

#include <algorithm>
#include <charconv>
#include <string_view>

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

namespace {

// Blanks part PIDs as commas do, except beside what joins or parts them already.
std::string WithoutBlanks(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\n\r\f\v", kMarks = "-:,";
    const auto isMark = [&](char c) { return kMarks.find(c) != std::string_view::npos; };
    std::string list;
    bool blank = false;
    for (const char c : text) {
        if (kBlanks.find(c) != std::string_view::npos) {
            blank = !list.empty();
            continue;
        }
        if (blank && !isMark(c) && !isMark(list.back()))
            list += ',';
        blank = false;
        list += c;
    }
    return list;
}

}  // namespace

PidRange ParsePidRange(const std::string& text) {
    const size_t hyphen = text.find('-');
    const uint32_t first = ParsePid(text.substr(0, hyphen));
    const uint32_t last = hyphen == std::string::npos ? first : ParsePid(text.substr(hyphen + 1));
    if (last < first)
        throw Misuse("\"" + text + "\": a range of PIDs begins with the lower one");
    return {first, last};
}

std::vector<std::string> SplitPids(const std::vector<std::string>& texts) {
    std::vector<std::string> parts;
    for (const std::string& text : texts) {
        const std::string list = WithoutBlanks(text);
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
