// The platform's critical section: a re-entrant lock with a name and a rank.
//
// A thread takes locks in rising rank; taking one it already holds is always allowed. Builds with
// OS_CHECK_LOCK_RANKS abort with both names when the order is broken.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/os/ThreadAnnotations.h"

class OS_CAPABILITY("mutex") CCritSec {
public:
    // name: a string literal that says what the lock guards; rank: 0 is outermost.
    CCritSec(const char* name, int rank);
    ~CCritSec() { pthread_mutex_destroy(&m_mutex); }

    CCritSec(const CCritSec&) = delete;
    CCritSec& operator=(const CCritSec&) = delete;

    void Lock() OS_ACQUIRE();
    void Unlock() OS_RELEASE();

    const char* Name() const { return m_name; }
    int Rank() const { return m_rank; }

private:
    // One that turns round a little before it sleeps: most are held for the time of a copy. That kind does not count
    // how often its owner has it, so that is done here.
    pthread_mutex_t m_mutex;
    std::atomic<pthread_t> m_owner{};
    uint32_t m_depth = 0;  // the owner's
    const char* const m_name;
    const int m_rank;
};
