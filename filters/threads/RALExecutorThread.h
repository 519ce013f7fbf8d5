// A worker thread that runs the task of another object.
#pragma once

#include <memory>

#include "filters/threads/RALThread.h"
#include "filters/threads/RALThreadExecutor.h"

namespace tessel {

// Holds the executor only while it calls it. So an executor that owns its thread makes no ring, a task
// that hangs finds its executor alive, and an executor that is gone ends the thread. When the task was
// the last to hold its executor, the executor is destroyed on this thread, at the end of the task.
class CRALExecutorThread final : public CRALThread {
public:
    explicit CRALExecutorThread(const std::shared_ptr<IRALThreadExecutor>& executor) : m_executor(executor) {}
    // An executor that is not shared outlives the thread, which may have a hold on it from its start.
    explicit CRALExecutorThread(IRALThreadExecutor* executor)
        : m_unshared(executor, [](IRALThreadExecutor*) {}), m_executor(m_unshared) {}

    HRESULT OnThreadStart() override;
    HRESULT OnThreadEnd() override;
    uint32_t DoOneThreadTask() override;

private:
    const std::shared_ptr<IRALThreadExecutor> m_unshared;
    const std::weak_ptr<IRALThreadExecutor> m_executor;
};

}  // namespace tessel
