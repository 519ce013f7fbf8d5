// The common start of all outputs that take their time from one PCR PID.
#pragma once

#include <span>

#include "core/OutputPinList.h"
#include "core/stream/PcrClocks.h"

namespace tessel {

struct SyncSettings {
    bool waitsForHalfSecond;    // of PCR, so that all streams have shown up
    bool inputEnded;            // nothing more comes
    bool hasLiveClock;          // nothing begins before streamTime
    REFERENCE_TIME streamTime;  // of the filter
};

struct SyncOrigin {
    int64_t pts;          // 90 kHz
    REFERENCE_TIME time;  // what it stands for
};

// The clock of the content's PCR PID gets its time: the first time stamp of the audio stream, or else of another one,
// is the start of all. Where it has one already, that holds. A failure means not yet.
//
// Between two jumps of the clock there is one start. Outputs that are behind a jump that the clock has made already get
// a start of their own, and those ahead wait for them.
//
// Once the input has ended, no output behind a jump waits for what will not come: a PCR, a time stamp of another one,
// or more data. Then a failure is final, and S_FALSE means that others have yet to come to where this one is.
HRESULT StartClock(PcrClocks& clocks, const CStreamExecutor& content, std::span<const OutputPinPtr> pins,
                   const SyncSettings& settings, SyncOrigin* out);

}  // namespace tessel
