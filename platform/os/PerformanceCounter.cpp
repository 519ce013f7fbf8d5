#include "platform/os/PerformanceCounter.h"

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

int64_t CPerformanceCounter::Count() const {
    return Clock::now().time_since_epoch().count();
}

int64_t CPerformanceCounter::Frequency() const {
    static_assert(Clock::period::num == 1);
    return Clock::period::den;
}

const CPerformanceCounter& CPerformanceCounter::System() {
    static const CPerformanceCounter counter;
    return counter;
}
