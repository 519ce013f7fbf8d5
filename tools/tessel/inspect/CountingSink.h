// The end of an output pin that is only watched: takes every media type and counts samples.
#pragma once

#include <atomic>

#include "platform/media/BaseInputPin.h"

namespace tessel::tool {

class CountingSink final : public CBaseFilter {
public:
    CountingSink();

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override { return index == 0 ? m_pin : nullptr; }

    // Any thread, while samples come.
    int64_t Samples() const { return m_samples.load(std::memory_order_relaxed); }
    int64_t Bytes() const { return m_bytes.load(std::memory_order_relaxed); }

private:
    class Pin;

    CCritSec m_stateLock;
    std::shared_ptr<CBasePin> m_pin;
    std::atomic<int64_t> m_samples{0};
    std::atomic<int64_t> m_bytes{0};
};

}  // namespace tessel::tool
