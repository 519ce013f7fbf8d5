#include "platform/os/MessageQueue.h"

#include <new>

bool CMessageQueue::Post(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    const MSG posted{message, wParam, lParam};
    const std::lock_guard lock(m_mutex);
    if (message == WM_QUIT) {
        if (m_quit)
            return false;
        m_quit = posted;
    } else {
        if (m_messages.size() >= kMaxMessages)
            return false;
        try {
            m_messages.push_back(posted);
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    m_condition.notify_all();
    return true;
}

bool CMessageQueue::IsFull() {
    const std::lock_guard lock(m_mutex);
    return m_messages.size() >= kMaxMessages;
}

MSG CMessageQueue::First(bool remove) {
    const MSG first = m_messages.empty() ? *m_quit : m_messages.front();
    if (remove && !m_messages.empty())
        m_messages.pop_front();
    else if (remove)
        m_quit.reset();
    return first;
}

bool CMessageQueue::Peek(MSG* out, bool remove) {
    const std::lock_guard lock(m_mutex);
    if (!HasOne())
        return false;
    *out = First(remove);
    return true;
}

bool CMessageQueue::Wait(uint32_t milliseconds) {
    std::unique_lock lock(m_mutex);
    return WaitOn(m_condition, lock, milliseconds, [this] { return HasOne(); });
}

MSG CMessageQueue::Get() {
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return HasOne(); });
    return First(true);
}
