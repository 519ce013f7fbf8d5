#include "filters/threads/FilterWorker.h"

namespace tessel {

namespace {

constexpr size_t kStack = 65'536;

}  // namespace

HRESULT CFilterWorker::Start(int32_t priority) {
    CScopedLock lock(&m_lock);
    if (!m_thread) {
        auto thread = MakeRALThread<CRALExecutorThread>(m_life);
        if (!thread)
            return E_FAIL;
        thread->SetWake(m_wake);
        thread->Start(nullptr, kStack);
        m_thread = std::move(thread);
    }
    m_thread->Resume(priority);
    return S_OK;
}

void CFilterWorker::Resume(int32_t priority) {
    CScopedLock lock(&m_lock);
    if (m_thread)
        m_thread->Resume(priority);
}

void CFilterWorker::Pause() {
    CScopedLock lock(&m_lock);
    if (m_thread)
        m_thread->Pause();
}

bool CFilterWorker::WaitForTask(uint32_t milliseconds) {
    std::shared_ptr<CRALThread> thread;
    {
        CScopedLock lock(&m_lock);
        thread = m_thread.get_deleter().thread;
    }
    return !thread || thread->WaitForTask(milliseconds);
}

void CFilterWorker::End() {
    m_life = nullptr;
    RALThreadPtr<CRALExecutorThread> last;
    {
        CScopedLock lock(&m_lock);
        last = std::move(m_thread);
    }
    if (!last)
        return;
    const std::shared_ptr<CRALThread> thread = last.get_deleter().thread;
    last = nullptr;
    // A task that began just before it was stopped uses what is about to go.
    thread->WaitForEnd(INFINITE);
}

}  // namespace tessel
