// The clock of a graph in which no filter has one.
#pragma once

#include "platform/media/ReferenceClock.h"
#include "platform/os/PerformanceCounter.h"

class CSystemClock final : public CBaseReferenceClock {
public:
    explicit CSystemClock(const CPerformanceCounter& counter = CPerformanceCounter::System());
    ~CSystemClock() override { StopAdvising(); }

    // The counter's time since an origin of its own.
    REFERENCE_TIME GetPrivateTime() override;

private:
    const CPerformanceCounter& m_counter;
};
