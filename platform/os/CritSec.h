// The platform's critical section: a re-entrant lock with a name and a rank.
//
// A thread takes locks in rising rank; taking one it already holds is always allowed. Builds with
// OS_CHECK_LOCK_RANKS abort with both names when the order is broken.
#pragma once

#include <mutex>

#include "platform/os/ThreadAnnotations.h"

class OS_CAPABILITY("mutex") CCritSec {
public:
    // name: a string literal that says what the lock guards; rank: 0 is outermost.
    CCritSec(const char* name, int rank) : m_name(name), m_rank(rank) {}

    CCritSec(const CCritSec&) = delete;
    CCritSec& operator=(const CCritSec&) = delete;

    void Lock() OS_ACQUIRE();
    void Unlock() OS_RELEASE();

    const char* Name() const { return m_name; }
    int Rank() const { return m_rank; }

private:
    std::recursive_mutex m_mutex;
    const char* const m_name;
    const int m_rank;
};
