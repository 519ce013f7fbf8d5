// The message queue of a thread that works on what others post to it.
//
// Whoever posts and the thread itself share the queue, so that neither outlives it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "platform/os/Event.h"

inline constexpr uint32_t WM_QUIT = 0x0012;
inline constexpr uint32_t WM_USER = 0x0400;  // a program's own messages begin here

struct MSG {
    uint32_t message = 0;
    uintptr_t wParam = 0;
    intptr_t lParam = 0;
};

class CMessageQueue {
public:
    // A thread that does not come to its messages must not fill the memory.
    static constexpr size_t kMaxMessages = 10000;

    CMessageQueue() = default;
    CMessageQueue(const CMessageQueue&) = delete;
    CMessageQueue& operator=(const CMessageQueue&) = delete;

    // Appends a message; false when the queue is full or memory is out. One WM_QUIT finds a place in a full queue too,
    // needs no memory, and comes when no other message is left.
    bool Post(uint32_t message, uintptr_t wParam = 0, intptr_t lParam = 0);
    bool IsFull();
    // The first message without waiting; false when there is none.
    bool Peek(MSG* out, bool remove);
    // Waits until there is a message; false when the time is over.
    bool Wait(uint32_t milliseconds = INFINITE);
    // Waits for the first message and removes it.
    MSG Get();

private:
    bool HasOne() const { return !m_messages.empty() || m_quit; }
    // There is one.
    MSG First(bool remove);

    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::deque<MSG> m_messages;
    std::optional<MSG> m_quit;
};
