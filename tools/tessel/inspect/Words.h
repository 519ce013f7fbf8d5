// How the inspector writes and reads PIDs, and says what they carry in the words that people use.
#pragma once

#include <optional>
#include <string>

#include "platform/media/Mpeg2Demultiplexer.h"
#include "tools/tessel/Services.h"

namespace tessel::tool {

// "257 (0x0101)", "All PIDs", "All Tables".
std::string PidWords(ULONG pid);
// Decimal, hexadecimal behind 0x, or one of the two special texts; none for anything else.
std::optional<ULONG> ReadPidWords(const std::string& typed);
// "AC-3 audio, ger"
std::string ComponentWords(const ComponentInfo& component);

}  // namespace tessel::tool
