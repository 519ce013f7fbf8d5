// Shared utilities: the assertion helper and the scoped lock.
#pragma once

#include "platform/os/CritSec.h"

namespace tessel {

[[noreturn]] void GenAssertFailed(const char* text);

// Aborts with text when condition is false: for a fault of ours, never of the input.
inline void GenAssert(bool condition, const char* text) {
    if (!condition) [[unlikely]]
        GenAssertFailed(text);
}

// Holds a lock for a scope.
class OS_SCOPED_CAPABILITY CScopedLock {
public:
    explicit CScopedLock(CCritSec* pT) OS_ACQUIRE(pT) : m_lock(pT) {
        GenAssert(nullptr != pT, "NULL != pT");
        m_lock->Lock();
    }
    ~CScopedLock() OS_RELEASE() { m_lock->Unlock(); }

    CScopedLock(const CScopedLock&) = delete;
    CScopedLock& operator=(const CScopedLock&) = delete;

private:
    CCritSec* const m_lock;
};

}  // namespace tessel
