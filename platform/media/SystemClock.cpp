#include "platform/media/SystemClock.h"

#include <algorithm>

#include "platform/media/GraphInterfaces.h"

CSystemClock::CSystemClock(const CPerformanceCounter& counter)
    : CBaseReferenceClock("CSystemClock", nullptr, kMediaLeafRank), m_counter(counter) {}

REFERENCE_TIME CSystemClock::GetPrivateTime() {
    constexpr int64_t kUnitsPerSecond = 1000 * kUnitsPerMillisecond;
    const int64_t count = m_counter.Count();
    const int64_t frequency = std::max<int64_t>(m_counter.Frequency(), 1);
    // In two steps, so that no product leaves 64 bits however long the machine has been up.
    return count / frequency * kUnitsPerSecond + count % frequency * kUnitsPerSecond / frequency;
}
