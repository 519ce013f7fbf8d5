// Bytes of a file that cannot be read, and what a command that is to go on behind them makes of them.
#pragma once

#include <span>

#include "platform/os/File.h"

namespace tessel::tool {

// From here on zeros stand for the sectors that cannot be read of files, so that everything else stays in its place.
void SkipUnreadable();
bool SkipsUnreadable();
// Opens the input's files.
const CFileSystem& InputFiles();
// The bytes of a file that buffer is for, from position on, cannot be read: puts zeros there, up to the end of the
// sector, and counts them. How many.
size_t PassOver(int64_t position, std::span<uint8_t> buffer);

struct PassedOver {
    int64_t bytes = 0;
    int64_t first = 0;  // position of the first
};
// So far, by all who read; what was read twice counts once.
PassedOver AllPassedOver();

}  // namespace tessel::tool
