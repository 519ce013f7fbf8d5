// The worker thread of a filter: made when the filter first streams, and there until the filter goes.
#pragma once

#include <memory>

#include "filters/threads/RALExecutorThread.h"

namespace tessel {

// Everything but the construction and End is called from any thread.
class CFilterWorker {
public:
    // The filter owns this; its task runs whenever wake is set.
    CFilterWorker(IRALThreadExecutor* filter, std::shared_ptr<CEvent> wake)
        : m_life(filter, [](IRALThreadExecutor*) {}), m_wake(std::move(wake)) {}
    ~CFilterWorker() { End(); }

    // Makes the thread when there is none yet, and lets tasks run. E_FAIL.
    HRESULT Start(int32_t priority);
    // As CRALThread; nothing, or true, while there is no thread.
    void Resume(int32_t priority);
    void Pause();
    bool WaitForTask(uint32_t milliseconds);
    // When the filter is stopped and its destruction begins: ends the thread, however long its last task takes.
    void End();

private:
    CCritSec m_lock{"filter's worker", kRankPin};
    RALThreadPtr<CRALExecutorThread> m_thread OS_GUARDED_BY(m_lock);
    // What the thread knows of the filter; gone before the filter goes.
    std::shared_ptr<IRALThreadExecutor> m_life;
    const std::shared_ptr<CEvent> m_wake;
};

}  // namespace tessel
