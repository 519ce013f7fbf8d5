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
    if (milliseconds == 0)
        return ready();
    return condition.wait_for(lock, std::chrono::milliseconds(milliseconds), ready);
}

enum class EventReset {
    kAuto,    // a wait that succeeds clears the event, so that each setting wakes one waiter
    kManual,  // stays set until Reset
};

class CEvent {
public:
    explicit CEvent(EventReset reset, bool set = false) : m_reset(reset), m_state(set ? kSet : 0) {}

    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    // Setting a set event is one load. So what the waiter is to find must be written under a lock
    // that it takes too, or be an atomic in the default (sequentially consistent) order.
    void Set();
    void Reset() { m_state.fetch_and(~kSet); }
    bool IsSet() const { return (m_state.load() & kSet) != 0; }

    // True when the event was set, false when the time is over.
    bool Wait(uint32_t milliseconds = INFINITE);

private:
    // Takes the setting if there is one, and leaving off from the waiters with it.
    bool Take(uint32_t waiters);

    static constexpr uint32_t kSet = 1;
    static constexpr uint32_t kWaiter = 2;

    const EventReset m_reset;
    // kSet, and kWaiter for each thread that sleeps or is about to. One word: a waiter may destroy the event as soon
    // as its wait has returned, so Set touches it once.
    std::atomic<uint32_t> m_state;
};
