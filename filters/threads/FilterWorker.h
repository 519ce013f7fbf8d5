// The worker thread of a filter: made when the filter first streams, and there until its last client lets go.
#pragma once

#include <memory>

#include "filters/threads/RALExecutorThread.h"

namespace tessel {

// Called from any thread.
class CFilterWorker {
public:
    // The filter owns this; its task runs whenever wake is set.
    CFilterWorker(IRALThreadExecutor* filter, std::shared_ptr<CEvent> wake)
        : m_filter(filter), m_wake(std::move(wake)) {}

    // Makes the thread when there is none yet, and lets tasks run. hold: on the filter; the thread keeps it.
    // E_OUTOFMEMORY, kThreadNotCreated.
    HRESULT Start(int32_t priority, std::shared_ptr<const void> hold);
    // As CRALThread; nothing, or true, while there is no thread.
    void Resume(int32_t priority);
    void Pause();
    bool WaitForTask(uint32_t milliseconds);
    // Ends the thread. One whose task takes long is left, and ends behind it.
    void End();

private:
    CCritSec m_lock{"filter's worker", kRankPin};
    RALThreadPtr<CRALExecutorThread> m_thread OS_GUARDED_BY(m_lock);
    IRALThreadExecutor* const m_filter;
    const std::shared_ptr<CEvent> m_wake;
};

}  // namespace tessel
