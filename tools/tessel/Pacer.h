// When the bytes of a recording were sent, by the clock references in it.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/media/ReferenceTime.h"

namespace tessel::tool {

class Pacer {
public:
    // A clock reference (27 MHz) in the packet at position. One that goes back, or more than a second on, is
    // a new clock: time goes on at the last rate.
    void OnPcr(int64_t pcr, int64_t position) {
        const int64_t ticks = pcr - m_pcr;
        const int64_t bytes = position - m_position;
        if (!m_known) {
            m_known = true;
        } else if (bytes <= 0) {
            return;
        } else if (ticks < 0 || ticks > kTicksPerSecond) {
            m_due = DueAt(position);
        } else {
            m_due += ticks * 10 / 27;
            m_rateTicks = ticks;
            m_rateBytes = bytes;
        }
        m_pcr = pcr;
        m_position = position;
    }

    bool IsKnown() const { return m_known; }
    // Of the byte at position, after that of the first clock reference.
    REFERENCE_TIME DueAt(int64_t position) const {
        return m_due +
               static_cast<int64_t>(static_cast<double>(position - m_position) * static_cast<double>(m_rateTicks) /
                                    static_cast<double>(m_rateBytes) * 10 / 27);
    }

private:
    static constexpr int64_t kTicksPerSecond = 27'000'000;

    bool m_known = false;
    int64_t m_pcr = 0;
    int64_t m_position = 0;
    REFERENCE_TIME m_due = 0;
    int64_t m_rateTicks = 0;
    int64_t m_rateBytes = 1;
};

}  // namespace tessel::tool
