// A thread of the system: stack size, priority, exit code, a wait for its end.
//
// No thread is ever killed. One that does not end in time is left alone by letting go of it; what it
// uses must then belong to its procedure.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/os/Event.h"

inline constexpr int32_t THREAD_PRIORITY_IDLE = -15;
inline constexpr int32_t THREAD_PRIORITY_LOWEST = -2;
inline constexpr int32_t THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int32_t THREAD_PRIORITY_NORMAL = 0;
inline constexpr int32_t THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int32_t THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int32_t THREAD_PRIORITY_TIME_CRITICAL = 15;

// Sleeps for at least so long.
void Sleep(uint32_t milliseconds);

// What the system's tools call the calling thread; at most 15 characters.
void NameThread(const char* name);

// Work of the calling thread, and of threads that it makes, that may wait when the processors are busy.
void YieldToOthers();

class CThread {
public:
    // Returns the exit code and throws nothing. What it holds is released before the thread counts as ended.
    using Procedure = std::function<uint32_t()>;

    static constexpr size_t kMinStackSize = size_t{1} << 20;

    // A running thread with a stack of at least kMinStackSize; null when the system refuses it.
    static std::shared_ptr<CThread> Create(size_t stackSize, Procedure procedure);
    // Lets go of the thread, which runs on if it has not ended.
    ~CThread();

    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // True when the thread has ended and nothing of it runs any more, false when the time is over. A
    // thread does not wait for itself: false at once.
    bool Wait(uint32_t milliseconds);
    bool HasEnded() const;
    // The calling thread is this one.
    bool IsCurrent() const;
    // What the procedure returned; 0 before the end.
    uint32_t ExitCode() const;

    // Kept, and tried: a system that refuses it is no error. Steps in between count as the nearest
    // one towards normal.
    void SetPriority(int32_t priority);
    int32_t Priority() const;

private:
    struct State;

    explicit CThread(std::shared_ptr<State> state) : m_state(std::move(state)) {}

    static void* Run(void* argument);

    const std::shared_ptr<State> m_state;
    pthread_t m_handle{};
    std::mutex m_joinMutex;
    bool m_joined = true;  // nothing to let go of
};
