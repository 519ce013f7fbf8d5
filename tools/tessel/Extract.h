// `tessel extract`: the packets, or the completed sections, of some PIDs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tessel/OutputFile.h"
#include "tools/tessel/TimeRange.h"

namespace tessel::tool {

enum class ExtractWhat { kPackets, kSections };

// input gives only that part of the file from here on, by a stream of the first service that has one of the PIDs, else
// of any. Failure when it cannot be sought in.
void ReadOnlyPart(InputFile& input, const std::vector<uint32_t>& pids, const TimeSpan& span);

// Returns the number of packets or sections written; Failure when there is no stream or nothing to write.
int64_t Extract(InputFile& input, const std::vector<uint32_t>& pids, ExtractWhat what, OutputFile& output);

}  // namespace tessel::tool
