#include "platform/os/MessageQueue.h"

#include <new>

bool CMessageQueue::Post(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    const std::lock_guard lock(m_mutex);
    if (m_messages.size() >= kMaxMessages + (message == WM_QUIT ? 1 : 0))
        return false;
    try {
        m_messages.push_back({message, wParam, lParam});
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_condition.notify_all();
    return true;
}

bool CMessageQueue::Peek(MSG* out, bool remove) {
    const std::lock_guard lock(m_mutex);
    if (m_messages.empty())
        return false;
    *out = m_messages.front();
    if (remove)
        m_messages.pop_front();
    return true;
}

bool CMessageQueue::Wait(uint32_t milliseconds) {
    std::unique_lock lock(m_mutex);
    return WaitOn(m_condition, lock, milliseconds, [this] { return !m_messages.empty(); });
}

MSG CMessageQueue::Get() {
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return !m_messages.empty(); });
    const MSG first = m_messages.front();
    m_messages.pop_front();
    return first;
}
