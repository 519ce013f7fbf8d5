// From the time stamps of PES packets to sample times.
#pragma once

#include <cstdint>

#include "core/stream/PcrClocks.h"

namespace tessel {

// Time stamps are 33-bit counts of 90 kHz (ISO/IEC 13818-1, 2.4.3.7); the time stamp ptsOrigin stands for
// the time timeOrigin. 13 hours apart, the direction of a step is anybody's guess; half of that decides.
class CSampleClock {
public:
    // The origin of a stream that starts here.
    void Start(int64_t ptsOrigin, REFERENCE_TIME timeOrigin);
    // Another origin; a clock of unknown time makes the sample times unknown.
    void Follow(const PcrClock& clock) { Start(clock.pcrOrigin / 300, clock.timeOrigin); }

    // The time of a raw time stamp, later ones first unwrapped; kUnknown without an origin.
    REFERENCE_TIME TimeOf(int64_t raw, REFERENCE_TIME streamOffset);
    // The last raw time stamp that was not a late one from before a wrap.
    int64_t LastRawTimestamp() const { return m_lastRaw; }

private:
    int64_t Unwrap(int64_t raw);

    int64_t m_ptsOrigin = 0;
    REFERENCE_TIME m_timeOrigin = 0;
    int64_t m_wrapOffset = 0;  // a multiple of 2^33
    int64_t m_lastRaw = 0;
};

}  // namespace tessel
