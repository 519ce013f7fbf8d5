// The common start of all outputs that take their time from one PCR PID.
#pragma once

#include <span>

#include "core/OutputPinList.h"
#include "core/stream/PcrClocks.h"

namespace tessel {

struct SyncSettings {
    bool waitsForHalfSecond;    // of PCR, so that all streams have shown up
    int32_t queuedJumps;        // jumps of the clock that the content that asks has yet to reach
    bool hasLiveClock;          // nothing begins before streamTime
    bool isLive;                // the clock has its time from the arrivals
    REFERENCE_TIME streamTime;  // of the filter
};

struct SyncOrigin {
    int64_t pts;          // 90 kHz
    REFERENCE_TIME time;  // what it stands for
};

// The clock of pcrPid gets its time: the first time stamp of the audio stream, or else of another one, is the start
// of all. Where it has one already, that holds. False: not yet.
//
// Between two jumps of the clock there is one start. Outputs that are behind a jump that the clock has made already get
// a start of their own, and those ahead wait for them.
bool StartClock(PcrClocks& clocks, int32_t pcrPid, std::span<const OutputPinPtr> pins, const SyncSettings& settings,
                SyncOrigin* out);

// Whether outputs that are still at work have more jumps left, so that a start without new input may yet come.
bool IsAheadOfOthers(int32_t pcrPid, std::span<const OutputPinPtr> pins, int32_t queuedJumps);

}  // namespace tessel
