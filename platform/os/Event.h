// Events: one thread sets them, others wait for them.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// As a time-out in milliseconds: wait without limit.
inline constexpr uint32_t INFINITE = 0xFFFFFFFF;

// Waits on condition until ready() is true or the time is over; tells whether it is true.
template <class Ready>
bool WaitOn(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, uint32_t milliseconds,
            Ready ready) {
    if (milliseconds == INFINITE) {
        condition.wait(lock, ready);
        return true;
    }
    return condition.wait_for(lock, std::chrono::milliseconds(milliseconds), ready);
}

enum class EventReset {
    kAuto,    // a wait that succeeds clears the event, so that each setting wakes one waiter
    kManual,  // stays set until Reset
};

class CEvent {
public:
    explicit CEvent(EventReset reset, bool set = false) : m_reset(reset), m_set(set) {}

    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    // Setting a set event is one load. So what the waiter is to find must be written under a lock
    // that it takes too, or be an atomic in the default (sequentially consistent) order.
    void Set();
    void Reset();
    bool IsSet() const { return m_set.load(); }

    // True when the event was set, false when the time is over.
    bool Wait(uint32_t milliseconds = INFINITE);

private:
    const EventReset m_reset;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    // Written under the mutex; read without it by Set and IsSet, which need no more than its value.
    std::atomic<bool> m_set;
};
