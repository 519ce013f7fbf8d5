// The lock around every delivery of a filter: shared by the samples, exclusive for a flush of all that is
// downstream.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tessel {

class CDeliveryLock {
public:
    // A thread takes it once at a time. Samples pass one another; a flush that waits does not hold them up, so
    // that one stalled receiver does not stall the others.
    void LockShared();
    void UnlockShared();
    // Waits until no sample is under way; false, and nothing is locked, when ended() turns true. WakeWaiters
    // makes the waiters look again.
    template <class Ended>
    bool LockExclusive(Ended ended) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_count == 0 || ended(); });
        if (ended())
            return false;
        m_count = -1;
        return true;
    }
    void UnlockExclusive();
    void WakeWaiters();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int32_t m_count = 0;  // samples under way; -1 while a flush is
};

}  // namespace tessel
