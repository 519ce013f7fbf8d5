// What a file is that is no transport stream, in words for whoever took it for one.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tessel::tool {

// A stream shows its packets within so many bytes from its beginning, noise in front of them included.
inline constexpr size_t kHeadToJudge = 1 << 20;

// Why the head of an input shows no packets of 188 or 192 bytes: "it is empty", "it is an MP4 file", ...; none where it
// does.
std::optional<std::string> WhyNoStream(std::span<const uint8_t> head);
// The same of a file, which is left as it was; none too where it cannot be read.
std::optional<std::string> WhyNoStream(int descriptor);

}  // namespace tessel::tool
