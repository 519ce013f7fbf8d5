// The worker thread: runs a task again and again, sleeps on a wake event between, can be paused and
// resumed, and is stopped by agreement with a bounded wait.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/com/Result.h"
#include "platform/os/Event.h"
#include "platform/os/Thread.h"

namespace tessel {

// No thread object was given, or the platform thread could not be created.
inline constexpr HRESULT kThreadNotCreated = MakeResult(0xA2008001);
// The operation needs a thread and there is none.
inline constexpr HRESULT kThreadMissing = MakeResult(0xA2008009);
// A success: the thread ended while Start was waiting for it to come up.
inline constexpr HRESULT kThreadEndedAtStart = 0x22008006;

// The object is what owner and thread share: the thread holds it while it runs, so a task that does
// not come back never finds it gone. Owners make one with MakeRALThread and thereby stop the thread
// when they let go.
//
// Everything but the three virtual operations is called from any thread, the worker itself included.
class CRALThread : public std::enable_shared_from_this<CRALThread> {
public:
    // What the platform thread runs; its result is the exit code.
    using Procedure = uint32_t (*)(CRALThread* thread);

    static constexpr uint32_t kStopWait = 2000;

    CRALThread() = default;
    virtual ~CRALThread() = default;

    CRALThread(const CRALThread&) = delete;
    CRALThread& operator=(const CRALThread&) = delete;

    // On the worker thread, before the first task: says that the thread has come up. A failure ends it.
    virtual HRESULT OnThreadStart();
    // On the worker thread, after the last task. The result is the thread's exit code.
    virtual HRESULT OnThreadEnd() { return S_OK; }
    // On the worker thread. The milliseconds until the next task, or INFINITE.
    virtual uint32_t DoOneThreadTask() = 0;

    // For a thread that its owner wakes: it waits for wake, at most so long, before each task, and the
    // delay that a task asks for does not count. E_UNEXPECTED while there is a thread.
    HRESULT SetWake(std::shared_ptr<CEvent> wake, uint32_t timeout = INFINITE);

    // Makes the thread, paused, and waits until it has come up. A null procedure is DefaultProcedure.
    // E_UNEXPECTED while there is a thread, or while one that Stop did not wait for still runs.
    // hold: what the thread uses; it lets go of that at its very end.
    HRESULT Start(Procedure procedure, size_t stackSize, std::shared_ptr<const void> hold = nullptr);
    // Sets the priority and lets tasks run.
    HRESULT Resume(int32_t priority);
    // No new task begins; one that runs, or is past the gate, finishes.
    HRESULT Pause();
    // After Pause: true when no task runs any more, false when the time is over or the caller is the thread.
    bool WaitForTask(uint32_t milliseconds);
    // Ends the thread after the task that runs, and waits for that up to kStopWait. A thread that
    // takes longer is left to end by itself; so is one that stops itself.
    HRESULT Stop();
    // True when the thread has ended, or there is none; false when the time is over or the caller is
    // the thread. For an owner whose task uses what the thread does not hold.
    bool WaitForEnd(uint32_t milliseconds);
    // False before the start notice and from Stop on.
    bool IsRunning() const { return m_running != 0 && !m_stop.IsSet(); }
    // A hint that this system does not take: S_OK.
    HRESULT SetIdealProcessor(uint32_t processor);

    // Tasks until Stop: wait for wake, wait at the gate, run one, sleep.
    static uint32_t DefaultProcedure(CRALThread* thread);

protected:
    // Leaves the loop after this task.
    void Leave();

    CCritSec m_lock{"worker thread", kRankLeaf};

private:
    void RunTasks();

    std::shared_ptr<CThread> m_thread OS_GUARDED_BY(m_lock);
    // One that was left to end by itself.
    std::shared_ptr<CThread> m_left OS_GUARDED_BY(m_lock);

    // Set by the start notice, cleared by Start and Stop. An atomic: the loop wants only its value.
    std::atomic<int32_t> m_running{0};
    // The thread came up in this start, whether or not it was stopped since.
    std::atomic<bool> m_cameUp{false};
    // Came up, or ended without.
    CEvent m_startDecided{EventReset::kManual};
    // Ends sleeps, and outlasts a start notice that comes after the stop.
    CEvent m_stop{EventReset::kManual};
    // The pause gate: while it is clear, no task begins.
    CEvent m_gate{EventReset::kManual};
    // No task runs.
    CEvent m_idle{EventReset::kManual, true};

    // These do not change while there is a thread.
    std::shared_ptr<CEvent> m_wake;
    uint32_t m_wakeTimeout = INFINITE;
    static constexpr uint32_t kIdleSleep = 10;
};

// Stops the thread when its owner lets go of it.
struct RALThreadStopper {
    std::shared_ptr<CRALThread> thread;

    void operator()(CRALThread*) {
        const auto last = std::move(thread);
        last->Stop();
    }
};

template <class Thread>
using RALThreadPtr = std::unique_ptr<Thread, RALThreadStopper>;

// Null when out of memory.
template <class Thread, class... Args>
RALThreadPtr<Thread> MakeRALThread(Args&&... args) {
    try {
        auto thread = std::make_shared<Thread>(std::forward<Args>(args)...);
        Thread* const plain = thread.get();
        return RALThreadPtr<Thread>(plain, RALThreadStopper{std::move(thread)});
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace tessel
