#include "filters/threads/FilterWorker.h"

namespace tessel {

namespace {

constexpr size_t kStack = 65'536;

}  // namespace

HRESULT CFilterWorker::Start(int32_t priority, std::shared_ptr<const void> hold) {
    CScopedLock lock(&m_lock);
    if (!m_thread) {
        auto thread = MakeRALThread<CRALExecutorThread>(m_filter);
        if (!thread || !hold)
            return E_OUTOFMEMORY;
        thread->SetWake(m_wake);
        if (const HRESULT result = thread->Start(nullptr, kStack, std::move(hold)); result != S_OK)
            return FAILED(result) ? result : kThreadNotCreated;
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
    RALThreadPtr<CRALExecutorThread> last;  // ends without the lock
    CScopedLock lock(&m_lock);
    last = std::move(m_thread);
}

}  // namespace tessel
