#include "platform/os/Event.h"

void CEvent::Set() {
    if (m_set.load())
        return;
    const std::lock_guard lock(m_mutex);
    m_set = true;
    // Inside the lock: a waiter may destroy the event as soon as its wait has returned.
    if (m_reset == EventReset::kAuto)
        m_condition.notify_one();
    else
        m_condition.notify_all();
}

void CEvent::Reset() {
    const std::lock_guard lock(m_mutex);
    m_set = false;
}

bool CEvent::Wait(uint32_t milliseconds) {
    std::unique_lock lock(m_mutex);
    return WaitOn(m_condition, lock, milliseconds,
                  [this] { return m_reset == EventReset::kAuto ? m_set.exchange(false) : m_set.load(); });
}
