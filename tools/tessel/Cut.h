// `tessel cut`: a part of one service as a transport stream of its own.
#pragma once

#include "tools/tessel/Files.h"
#include "tools/tessel/TimeRange.h"

namespace tessel::tool {

// Writes the packets of the service's program map and its streams, with a PAT that names it alone. service: id
// or name; none for the first that has a program map. Failure when the file source does not open input, or nothing of
// the service is there. Returns where the part begins, 100 ns behind the first picture of the file.
int64_t Cut(InputFile& input, const std::optional<std::string>& service, const TimeSpan& span,
            const std::string& output);

}  // namespace tessel::tool
