#include "filters/WallClock.h"

#include <algorithm>
#include <utility>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"

namespace tessel {

CWallClock::CWallClock(IUnknown* owner, HRESULT* result, const CPerformanceCounter& counter)
    : CBaseReferenceClock("CWallClock", owner, kRankLeaf), m_counter(counter), m_frequency(counter.Frequency()) {
    if (m_frequency < 1) {
        m_frequency = 1;
        *result = E_FAIL;
    }
    m_lastOut = 0;
    m_lastSystemTime = m_baseOut = m_baseIn = CounterMilliseconds();
    m_privateTime = m_lastSystemTime * kUnitsPerMillisecond;
}

CWallClock::~CWallClock() {
    StopAdvising();
}

int64_t CWallClock::CounterMilliseconds() const {
    // In two parts: the count times 1000 leaves 64 bits after 106 days of nanoseconds.
    const int64_t count = m_counter.Count();
    return count / m_frequency * 1000 + count % m_frequency * 1000 / m_frequency;
}

int64_t CWallClock::SourceMilliseconds() {
    m_lastOut = std::max(m_lastOut, m_baseOut + (CounterMilliseconds() - m_baseIn));
    return m_lastOut;
}

REFERENCE_TIME CWallClock::GetPrivateTime() {
    const CScopedLock lock(&m_lock);
    const int64_t now = SourceMilliseconds();
    // Not below 0: after an alignment the last system time lies between two readings of the counter.
    const int64_t passed = std::max<int64_t>(now - m_lastSystemTime, 0) * kUnitsPerMillisecond;
    m_lastSystemTime = now;
    // The clock that was followed may have stood anywhere.
    if (__builtin_add_overflow(m_privateTime, passed, &m_privateTime))
        m_privateTime = MAX_TIME;
    return m_privateTime;
}

void CWallClock::SetSyncSource(IReferenceClock* clock) {
    const bool isThis = clock != nullptr && IsThisClock(clock);
    ComPtr<IReferenceClock> previous;
    bool wasThis = false;
    {
        const CScopedLock lock(&m_lock);
        previous = std::exchange(m_source, isThis ? ComPtr<IReferenceClock>() : ComPtr<IReferenceClock>(clock));
        wasThis = std::exchange(m_isSource, isThis);
    }
    if (clock == nullptr || (isThis && wasThis))
        return;
    if (!Follow(isThis ? previous.Get() : clock) && isThis) {
        const CScopedLock lock(&m_lock);
        m_lastSystemTime = m_baseOut = m_baseIn = CounterMilliseconds();
        m_privateTime = m_lastSystemTime * kUnitsPerMillisecond;
    }
    TriggerThread();
}

bool CWallClock::Follow(IReferenceClock* other) {
    const int64_t before = CounterMilliseconds();
    REFERENCE_TIME time = 0;
    if (other == nullptr || FAILED(other->GetTime(&time)))
        return false;
    const int64_t after = CounterMilliseconds();
    const CScopedLock lock(&m_lock);
    m_privateTime = time;
    m_baseOut = m_baseIn = before;
    // The time asked for is taken to be that of the middle of the question.
    m_lastSystemTime = before + (after - before) / 2;
    return true;
}

bool CWallClock::IsThisClock(IReferenceClock* clock) {
    const auto own = ComPtr<IUnknown>(GetOwner()).As<IUnknown>();
    return ComPtr<IReferenceClock>(clock).As<IUnknown>().Get() == own.Get();
}

}  // namespace tessel
