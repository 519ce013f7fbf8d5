#include "output/DeliveryLock.h"

namespace tessel {

void CDeliveryLock::LockShared() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_count >= 0; });
    ++m_count;
}

void CDeliveryLock::UnlockShared() {
    const std::lock_guard lock(m_mutex);
    if (--m_count == 0)
        m_changed.notify_all();
}

void CDeliveryLock::UnlockExclusive() {
    const std::lock_guard lock(m_mutex);
    m_count = 0;
    m_changed.notify_all();
}

void CDeliveryLock::WakeWaiters() {
    const std::lock_guard lock(m_mutex);
    m_changed.notify_all();
}

}  // namespace tessel
