#include "platform/media/EventQueue.h"

#include "platform/media/MediaResult.h"

HRESULT CMediaEventQueue::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IMediaEventSink::kIid)
        return GetInterface<IMediaEventSink>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CMediaEventQueue::Notify(LONG code, LONG_PTR param1, LONG_PTR param2) {
    const std::lock_guard lock(m_mutex);
    if (code == EC_COMPLETE && !m_renderers.empty()) {
        std::erase(m_pending, param2);
        if (!m_pending.empty())
            return S_OK;
        m_pending = m_renderers;  // for the stream after a seek
    }
    if (m_count == kMaxEvents)
        return E_FAIL;
    m_events[(m_first + m_count++) % kMaxEvents] = {.code = code, .param1 = param1, .param2 = param2};
    m_arrived.notify_one();
    return S_OK;
}

HRESULT CMediaEventQueue::GetEvent(MediaEvent* out, DWORD milliseconds) {
    if (out == nullptr)
        return E_POINTER;
    std::unique_lock lock(m_mutex);
    if (!WaitOn(m_arrived, lock, milliseconds, [this] { return m_count != 0; }))
        return E_ABORT;
    *out = m_events[m_first];
    m_first = (m_first + 1) % kMaxEvents;
    --m_count;
    return S_OK;
}

void CMediaEventQueue::Restart(std::vector<LONG_PTR> renderers) {
    const std::lock_guard lock(m_mutex);
    size_t kept = 0;
    for (size_t i = 0; i < m_count; ++i)
        if (const MediaEvent& event = m_events[(m_first + i) % kMaxEvents]; event.code != EC_COMPLETE)
            m_events[(m_first + kept++) % kMaxEvents] = event;
    m_count = kept;
    m_pending = renderers;
    m_renderers = std::move(renderers);
}
