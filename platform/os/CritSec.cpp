#include "platform/os/CritSec.h"

#ifdef OS_CHECK_LOCK_RANKS
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

thread_local std::vector<const CCritSec*> t_held;

void NoteLocking(const CCritSec* lock) {
    if (std::find(t_held.begin(), t_held.end(), lock) == t_held.end()) {
        for (const CCritSec* held : t_held) {
            if (held->Rank() >= lock->Rank()) {
                std::fprintf(stderr, "lock order: \"%s\" (rank %d) taken while holding \"%s\" (rank %d)\n",
                             lock->Name(), lock->Rank(), held->Name(), held->Rank());
                std::abort();
            }
        }
    }
    t_held.push_back(lock);
}

void NoteUnlocking(const CCritSec* lock) {
    const auto last = std::find(t_held.rbegin(), t_held.rend(), lock);
    if (last != t_held.rend())
        t_held.erase(std::next(last).base());
}

}  // namespace
#else
static inline void NoteLocking(const CCritSec*) {}
static inline void NoteUnlocking(const CCritSec*) {}
#endif

CCritSec::CCritSec(const char* name, int rank) : m_name(name), m_rank(rank) {
    pthread_mutexattr_t kind;
    pthread_mutexattr_init(&kind);
    pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&m_mutex, &kind);
    pthread_mutexattr_destroy(&kind);
}

void CCritSec::Lock() {
    NoteLocking(this);
    const pthread_t self = pthread_self();
    // Another thread's value may be stale, but never this thread's.
    if (m_owner.load(std::memory_order_relaxed) == self) {
        ++m_depth;
        return;
    }
    pthread_mutex_lock(&m_mutex);
    m_owner.store(self, std::memory_order_relaxed);
    m_depth = 1;
}

void CCritSec::Unlock() {
    NoteUnlocking(this);
    if (--m_depth != 0)
        return;
    m_owner.store(pthread_t{}, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_mutex);
}
