// PIDs as they are written on a command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::tool {

struct PidRange {
    uint32_t first;
    uint32_t last;
};

// "256" or "0x100"; Misuse for anything that is no PID.
uint32_t ParsePid(const std::string& text);
// "256", "0x100-0x104"; Misuse for anything else.
PidRange ParsePidRange(const std::string& text);
// What commas and blanks part in the texts; Misuse where nothing stands between two commas.
std::vector<std::string> SplitPids(const std::vector<std::string>& texts);
// "256", "17,0x11", "256 - 260, 0"; Misuse for anything else.
std::vector<uint32_t> ParsePidList(const std::vector<std::string>& texts);

}  // namespace tessel::tool
