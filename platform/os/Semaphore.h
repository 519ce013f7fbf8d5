// A counting semaphore.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/os/Event.h"

class CSemaphore {
public:
    CSemaphore() = default;
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    // Adds to the count, which stops at its greatest value.
    void Release(uint32_t count = 1) {
        const std::lock_guard lock(m_mutex);
        m_count = count > UINT32_MAX - m_count ? UINT32_MAX : m_count + count;
        m_condition.notify_all();
    }

    // Takes one from the count; false when the time is over.
    bool Wait(uint32_t milliseconds = INFINITE) {
        std::unique_lock lock(m_mutex);
        if (!WaitOn(m_condition, lock, milliseconds, [this] { return m_count != 0; }))
            return false;
        --m_count;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    uint32_t m_count = 0;
};
