#include "platform/os/Event.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <ctime>

namespace {

// Sleeps while *word is expected; also returns for no reason.
void Sleep(std::atomic<uint32_t>* word, uint32_t expected, const timespec* limit) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, limit, nullptr, 0);
}

void Wake(std::atomic<uint32_t>* word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

}  // namespace

void CEvent::Set() {
    if (IsSet())
        return;
    const bool one = m_reset == EventReset::kAuto;
    const uint32_t before = m_state.fetch_or(kSet);
    if ((before & kSet) == 0 && before != 0)
        Wake(&m_state, one ? 1 : INT_MAX);
}

bool CEvent::Take(uint32_t waiters) {
    uint32_t state = m_state.load();
    while ((state & kSet) != 0) {
        const uint32_t after = state - waiters - (m_reset == EventReset::kAuto ? kSet : 0);
        if (m_state.compare_exchange_weak(state, after))
            return true;
    }
    return false;
}

bool CEvent::Wait(uint32_t milliseconds) {
    using Clock = std::chrono::steady_clock;
    if (Take(0))
        return true;
    if (milliseconds == 0)
        return false;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    m_state.fetch_add(kWaiter);
    while (!Take(kWaiter)) {
        timespec limit{};
        if (milliseconds != INFINITE) {
            const int64_t left = std::chrono::nanoseconds(end - Clock::now()).count();
            if (left <= 0) {
                m_state.fetch_sub(kWaiter);
                return false;
            }
            limit.tv_sec = left / 1'000'000'000;
            limit.tv_nsec = left % 1'000'000'000;
        }
        const uint32_t state = m_state.load();
        if ((state & kSet) == 0)
            Sleep(&m_state, state, milliseconds == INFINITE ? nullptr : &limit);
    }
    return true;
}
