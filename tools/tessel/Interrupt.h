// Ctrl-C: a command that asked for it ends with what it has.
#pragma once

#include <cstdint>

namespace tessel::tool {

// From here on the first SIGINT or SIGTERM only sets the mark; a second one ends the process.
void CatchInterrupts();
bool Interrupted();

// Until the descriptor has bytes, its end or an error: true. False once interrupted.
bool WaitForInput(int descriptor);
// Sleeps, and no longer once interrupted.
void SleepUnlessInterrupted(int64_t milliseconds);

}  // namespace tessel::tool
