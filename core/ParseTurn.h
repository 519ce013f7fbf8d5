// One run of the parser at a time, together with what it leaves to be done without its locks.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace tessel {

// Not a lock of the order: it is held while receivers and sinks are called. So nobody waits for it without end:
// a wait is over when its condition says so. A thread that has the turn may take it again.
class CParseTurn {
public:
    // False when ended() turned true first; the caller then leaves the parser alone.
    template <class Ended>
    bool Take(Ended ended) {
        std::unique_lock lock(m_mutex);
        const auto self = std::this_thread::get_id();
        if (m_owner != self) {
            m_changed.wait(lock, [&] { return m_depth == 0 || ended(); });
            if (m_depth != 0)
                return false;
        }
        m_owner = self;
        ++m_depth;
        return true;
    }
    // False when another thread has it.
    bool TryTake() {
        return Take([] { return true; });
    }
    void Release() {
        const std::lock_guard lock(m_mutex);
        if (--m_depth != 0)
            return;
        m_owner = {};
        m_changed.notify_all();
    }
    // Whoever waits looks at its condition again.
    void Wake() {
        const std::lock_guard lock(m_mutex);
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::thread::id m_owner;
    int m_depth = 0;
};

// Gives a turn that was taken back, an exception on the way or not.
class CHeldTurn {
public:
    // Null: it was not to be had.
    explicit CHeldTurn(CParseTurn* turn) : m_turn(turn) {}
    ~CHeldTurn() { Release(); }
    CHeldTurn(CHeldTurn&& other) noexcept : m_turn(std::exchange(other.m_turn, nullptr)) {}
    CHeldTurn(const CHeldTurn&) = delete;
    CHeldTurn& operator=(const CHeldTurn&) = delete;

    explicit operator bool() const { return m_turn != nullptr; }
    void Release() {
        if (CParseTurn* const turn = std::exchange(m_turn, nullptr))
            turn->Release();
    }

private:
    CParseTurn* m_turn;
};

}  // namespace tessel
