// `tessel watch`: the events of tables, services and PIDs as a stream comes in.
#pragma once

#include "tools/tessel/Files.h"

namespace tessel::tool {

enum class WatchFormat { kText, kJson };

// Prints a line an event until the input ends. Failure when it is no transport stream.
void Watch(InputFile& input, WatchFormat format);

}  // namespace tessel::tool
