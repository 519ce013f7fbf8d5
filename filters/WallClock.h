// The clock that the live splitter offers to its graph: real time from the performance counter.
#pragma once

#include "platform/com/ComPtr.h"
#include "platform/media/ReferenceClock.h"
#include "platform/os/PerformanceCounter.h"

namespace tessel {

// Time starts at the counter's own and is carried on when the graph changes its clock: from the clock
// that it followed before, or to the one that it follows now.
class CWallClock final : public CBaseReferenceClock {
public:
    // owner: the object that the clock is part of, or null. result: written when something fails, else
    // left as it is. counter: outlives the clock.
    CWallClock(IUnknown* owner, HRESULT* result, const CPerformanceCounter& counter = CPerformanceCounter::System());
    ~CWallClock() override;

    REFERENCE_TIME GetPrivateTime() override;

    // The graph runs by clock from now on: this one, another, or none (null), which leaves the time
    // running on. Calls clock or the one before it, so nothing is locked here meanwhile.
    void SetSyncSource(IReferenceClock* clock);

private:
    int64_t CounterMilliseconds() const;
    int64_t SourceMilliseconds() OS_REQUIRES(m_lock);
    bool IsThisClock(IReferenceClock* clock);
    // Asks another clock for the time and goes on from it; false, and nothing changed, when it fails.
    bool Follow(IReferenceClock* other);

    const CPerformanceCounter& m_counter;
    int64_t m_frequency;

    // Milliseconds in 64 bits: counted in 32, the clock would stand still or leap after 25 and 49 days.
    int64_t m_baseOut OS_GUARDED_BY(m_lock);  // the clock's at the last alignment
    int64_t m_baseIn OS_GUARDED_BY(m_lock);   // the counter's at the last alignment
    int64_t m_lastOut OS_GUARDED_BY(m_lock);  // no lower value is given out any more

    // The clock given last, unless it is this one: that would hold its owner for ever.
    ComPtr<IReferenceClock> m_source OS_GUARDED_BY(m_lock);
    bool m_isSource OS_GUARDED_BY(m_lock) = false;  // this clock was given last
};

}  // namespace tessel
