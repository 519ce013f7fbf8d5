#include "platform/media/ReferenceClock.h"

#include <algorithm>
#include <new>

HRESULT CBaseReferenceClock::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IReferenceClock::kIid)
        return GetInterface<IReferenceClock>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

CBaseReferenceClock::~CBaseReferenceClock() {
    StopAdvising();
}

REFERENCE_TIME CBaseReferenceClock::Now() {
    m_lastGotTime = std::max(m_lastGotTime, GetPrivateTime());
    return m_lastGotTime;
}

HRESULT CBaseReferenceClock::GetTime(REFERENCE_TIME* out) {
    if (out == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    const REFERENCE_TIME before = m_lastGotTime;
    *out = Now();
    return *out == before ? S_FALSE : S_OK;
}

HRESULT CBaseReferenceClock::AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HEVENT event,
                                        DWORD_PTR* cookie) {
    if (cookie == nullptr || event == nullptr)
        return E_POINTER;
    *cookie = 0;
    REFERENCE_TIME time = 0;
    if (__builtin_add_overflow(baseTime, streamTime, &time) || time <= 0 || time == MAX_TIME)
        return E_INVALIDARG;
    return AddAdvise(time, {.cookie = 0, .event = event, .semaphore = nullptr, .period = 0}, cookie);
}

HRESULT CBaseReferenceClock::AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime, HSEMAPHORE semaphore,
                                            DWORD_PTR* cookie) {
    if (cookie == nullptr || semaphore == nullptr)
        return E_POINTER;
    *cookie = 0;
    if (startTime <= 0 || startTime == MAX_TIME || periodTime <= 0)
        return E_INVALIDARG;
    return AddAdvise(startTime, {.cookie = 0, .event = nullptr, .semaphore = semaphore, .period = periodTime}, cookie);
}

HRESULT CBaseReferenceClock::AddAdvise(REFERENCE_TIME time, Advise advise, DWORD_PTR* cookie) {
    const CAutoLock lock(&m_lock);
    if (m_adviseThread == nullptr) {
        m_adviseThread = CThread::Create(0, [this] { return AdviseThread(); });
        if (m_adviseThread == nullptr)
            return E_OUTOFMEMORY;
        m_adviseThread->SetPriority(THREAD_PRIORITY_TIME_CRITICAL);
    }
    advise.cookie = m_lastCookie + 1;
    try {
        m_advises.emplace(time, advise);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    *cookie = ++m_lastCookie;
    m_trigger.Set();
    return S_OK;
}

HRESULT CBaseReferenceClock::Unadvise(DWORD_PTR cookie) {
    const CAutoLock lock(&m_lock);
    const auto found = std::find_if(m_advises.begin(), m_advises.end(),
                                    [cookie](const auto& entry) { return entry.second.cookie == cookie; });
    if (found == m_advises.end())
        return S_FALSE;
    m_advises.erase(found);
    return S_OK;
}

void CBaseReferenceClock::TriggerThread() {
    m_trigger.Set();
}

void CBaseReferenceClock::StopAdvising() {
    std::shared_ptr<CThread> thread;
    {
        const CAutoLock lock(&m_lock);
        thread = m_adviseThread;
    }
    if (thread == nullptr)
        return;
    m_stopAdvising = true;
    m_trigger.Set();
    // It calls nothing out and waits on nothing else, so it ends at once.
    thread->Wait(INFINITE);
}

uint32_t CBaseReferenceClock::AdviseThread() {
    while (!m_stopAdvising)
        m_trigger.Wait(SignalDue());
    return 0;
}

uint32_t CBaseReferenceClock::SignalDue() {
    // Held while signalling, so that nothing is signalled after Unadvise returned.
    const CAutoLock lock(&m_lock);
    const REFERENCE_TIME now = Now();
    while (!m_advises.empty() && m_advises.begin()->first <= now) {
        auto entry = m_advises.extract(m_advises.begin());
        const Advise& advise = entry.mapped();
        if (advise.event != nullptr) {
            advise.event->Set();
            continue;
        }
        // In one step for all periods that have passed: the clock may have jumped by months.
        const uint64_t passed = static_cast<uint64_t>(now) - static_cast<uint64_t>(entry.key());
        const uint64_t count = passed / static_cast<uint64_t>(advise.period) + 1;
        advise.semaphore->Release(static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)));
        const uint64_t lead = static_cast<uint64_t>(advise.period) - passed % static_cast<uint64_t>(advise.period);
        if (__builtin_add_overflow(now, lead, &entry.key()))
            continue;  // its next time never comes
        m_advises.insert(std::move(entry));
    }
    if (m_advises.empty())
        return INFINITE;
    const uint64_t left = static_cast<uint64_t>(m_advises.begin()->first) - static_cast<uint64_t>(now);
    const uint64_t milliseconds = (left - 1) / kUnitsPerMillisecond + 1;
    return static_cast<uint32_t>(std::min<uint64_t>(milliseconds, INFINITE - 1));
}
