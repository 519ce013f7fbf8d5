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

void CCritSec::Lock() {
    NoteLocking(this);
    m_mutex.lock();
}

void CCritSec::Unlock() {
    NoteUnlocking(this);
    m_mutex.unlock();
}
