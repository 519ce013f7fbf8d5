// Holds a critical section for a scope.
#pragma once

#include "platform/os/CritSec.h"

class OS_SCOPED_CAPABILITY CAutoLock {
public:
    explicit CAutoLock(CCritSec* lock) OS_ACQUIRE(lock) : m_lock(lock) { m_lock->Lock(); }
    ~CAutoLock() OS_RELEASE() { m_lock->Unlock(); }

    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

private:
    CCritSec* const m_lock;
};
