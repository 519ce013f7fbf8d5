// Ctrl-C ends the input of a command early: what has come until then comes out whole.
#pragma once

#include <cstdint>

namespace tessel::tool {

// What an interrupt is to a command: less than was asked for, or the end that its input has.
enum class Interrupt { kCutsShort, kIsTheEnd };

// From here on the first SIGINT, SIGTERM or SIGHUP only sets the mark; the second of any ends the process.
void CatchInterrupts(Interrupt meaning = Interrupt::kCutsShort);
bool Interrupted();
// Interrupted, and that was not the end.
bool WasCutShort();

// Until the descriptor has bytes, its end or an error: true. False once interrupted.
bool WaitForInput(int descriptor);
// Sleeps, and no longer once interrupted.
void SleepUnlessInterrupted(int64_t milliseconds);

}  // namespace tessel::tool
