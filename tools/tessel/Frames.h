// `tessel frames`: the frames of an audio stream, a line each.
#pragma once

#include <cstdint>

#include "tools/tessel/Feed.h"

namespace tessel::tool {

// MPEG audio and AC-3. Prints as it reads; Failure when pid is no such stream, or has no frames.
void PrintFrames(Feed& feed, uint32_t pid, bool json);

}  // namespace tessel::tool
