#include "filters/threads/RALThread.h"

namespace tessel {

namespace {

// Stop sets the wake event anew each time this has passed: the owner may have reset it meanwhile.
constexpr uint32_t kStopSlice = 50;

}  // namespace

HRESULT CRALThread::OnThreadStart() {
    m_running = 1;
    m_cameUp = true;
    m_startDecided.Set();
    return S_OK;
}

HRESULT CRALThread::SetWake(std::shared_ptr<CEvent> wake, uint32_t timeout) {
    const CScopedLock lock(&m_lock);
    if (m_thread != nullptr || (m_left != nullptr && !m_left->HasEnded()))
        return E_UNEXPECTED;
    m_wake = std::move(wake);
    m_wakeTimeout = timeout;
    return S_OK;
}

HRESULT CRALThread::Start(Procedure procedure, size_t stackSize, std::shared_ptr<const void> hold) {
    if (procedure == nullptr)
        procedure = &CRALThread::DefaultProcedure;
    const auto self = weak_from_this().lock();
    if (self == nullptr)
        return kThreadNotCreated;
    std::shared_ptr<CThread> thread;
    {
        const CScopedLock lock(&m_lock);
        if ((m_thread != nullptr && !m_thread->HasEnded()) || (m_left != nullptr && !m_left->HasEnded()))
            return E_UNEXPECTED;
        m_thread = nullptr;
        m_left = nullptr;
        m_running = 0;
        m_cameUp = false;
        m_startDecided.Reset();
        m_stop.Reset();
        m_gate.Reset();
        thread = CThread::Create(stackSize, [hold = std::move(hold), self, procedure] {
            const uint32_t code = procedure(self.get());
            self->m_startDecided.Set();
            return code;
        });
        if (thread == nullptr) {
            m_startDecided.Set();
            return kThreadNotCreated;
        }
        m_thread = thread;
    }
    m_startDecided.Wait();
    if (m_cameUp)
        return S_OK;
    thread->Wait(INFINITE);
    return kThreadEndedAtStart;
}

HRESULT CRALThread::Resume(int32_t priority) {
    const CScopedLock lock(&m_lock);
    if (m_thread == nullptr)
        return kThreadMissing;
    m_thread->SetPriority(priority);
    m_gate.Set();
    return S_OK;
}

HRESULT CRALThread::Pause() {
    const CScopedLock lock(&m_lock);
    if (m_thread == nullptr)
        return kThreadMissing;
    // A thread that is being stopped must not be held back at the gate.
    if (m_stop.IsSet())
        return S_OK;
    m_gate.Reset();
    m_thread->SetPriority(THREAD_PRIORITY_NORMAL);
    return S_OK;
}

HRESULT CRALThread::Stop() {
    std::shared_ptr<CThread> thread;
    {
        const CScopedLock lock(&m_lock);
        if (m_thread == nullptr)
            return kThreadMissing;
        thread = m_thread;
        Leave();
        if (m_wake != nullptr)
            m_wake->Set();
        thread->SetPriority(THREAD_PRIORITY_HIGHEST);
        m_gate.Set();
    }
    if (!thread->IsCurrent()) {
        for (uint32_t waited = 0; waited < kStopWait && !thread->Wait(kStopSlice); waited += kStopSlice) {
            if (m_wake != nullptr)
                m_wake->Set();
        }
    }
    const CScopedLock lock(&m_lock);
    if (m_thread == thread) {
        m_left = std::move(m_thread);
        m_thread = nullptr;
    }
    return S_OK;
}

bool CRALThread::WaitForEnd(uint32_t milliseconds) {
    std::shared_ptr<CThread> thread;
    {
        const CScopedLock lock(&m_lock);
        thread = m_thread != nullptr ? m_thread : m_left;
    }
    return thread == nullptr || thread->Wait(milliseconds);
}

HRESULT CRALThread::SetIdealProcessor(uint32_t) {
    const CScopedLock lock(&m_lock);
    return m_thread != nullptr ? S_OK : kThreadMissing;
}

bool CRALThread::WaitForTask(uint32_t milliseconds) {
    {
        const CScopedLock lock(&m_lock);
        if (m_thread == nullptr)
            return true;
        if (m_thread->IsCurrent())
            return false;
    }
    return m_idle.Wait(milliseconds);
}

void CRALThread::Leave() {
    m_running = 0;
    m_stop.Set();
}

uint32_t CRALThread::DefaultProcedure(CRALThread* thread) {
    if (thread == nullptr)
        return static_cast<uint32_t>(kThreadNotCreated);
    const HRESULT started = thread->OnThreadStart();
    if (FAILED(started))
        return static_cast<uint32_t>(started);
    thread->RunTasks();
    thread->m_idle.Set();
    return static_cast<uint32_t>(thread->OnThreadEnd());
}

void CRALThread::RunTasks() {
    while (IsRunning()) {
        if (m_wake != nullptr)
            m_wake->Wait(m_wakeTimeout);
        // Who closes the gate and then finds the thread idle can be sure that no task runs.
        do {
            m_idle.Set();
            m_gate.Wait();
            m_idle.Reset();
        } while (!m_gate.IsSet());
        if (!IsRunning())
            break;
        const uint32_t delay = DoOneThreadTask();
        m_idle.Set();
        if (delay == INFINITE || m_wake != nullptr)
            continue;
        // Not beyond the greatest time-out, which would become none; Stop ends the sleep.
        m_stop.Wait(delay < INFINITE - kIdleSleep ? delay + kIdleSleep : INFINITE - 1);
    }
}

}  // namespace tessel
