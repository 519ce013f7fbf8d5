#include "output/SampleClock.h"

#include <algorithm>
#include <limits>

#include "core/stream/PesHeader.h"

namespace tessel {

namespace {

constexpr int64_t kHalfWrap = int64_t{1} << 32;

__extension__ using Wide = __int128;

}  // namespace

void CSampleClock::Start(int64_t ptsOrigin, REFERENCE_TIME timeOrigin) {
    m_ptsOrigin = ptsOrigin;
    m_timeOrigin = timeOrigin;
    m_wrapOffset = 0;
    m_lastRaw = ptsOrigin;
}

int64_t CSampleClock::Unwrap(int64_t raw) {
    if (m_lastRaw - raw > kHalfWrap)
        m_wrapOffset += kTimestampWrap;
    if (raw - m_lastRaw < kHalfWrap) {
        m_lastRaw = raw;
        return raw + m_wrapOffset;
    }
    return m_wrapOffset > 0 ? raw + m_wrapOffset - kTimestampWrap : raw;
}

REFERENCE_TIME CSampleClock::TimeOf(int64_t raw, REFERENCE_TIME streamOffset) {
    const int64_t value = Unwrap(raw);
    if (m_timeOrigin == kUnknown)
        return kUnknown;
    const Wide time = (static_cast<Wide>(value) - m_ptsOrigin) * 1000 / 9 + m_timeOrigin + streamOffset;
    constexpr Wide kLeast = static_cast<Wide>(kUnknown) + 1;
    return static_cast<REFERENCE_TIME>(std::clamp<Wide>(time, kLeast, std::numeric_limits<int64_t>::max()));
}

}  // namespace tessel
