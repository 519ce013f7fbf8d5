#include "platform/media/EventQueue.h"

#include <new>

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
    if (m_events.size() >= kMaxEvents)
        return E_FAIL;
    try {
        m_events.push_back({.code = code, .param1 = param1, .param2 = param2});
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    m_arrived.notify_one();
    return S_OK;
}

HRESULT CMediaEventQueue::GetEvent(MediaEvent* out, DWORD milliseconds) {
    if (out == nullptr)
        return E_POINTER;
    std::unique_lock lock(m_mutex);
    if (!WaitOn(m_arrived, lock, milliseconds, [this] { return !m_events.empty(); }))
        return E_ABORT;
    *out = m_events.front();
    m_events.pop_front();
    return S_OK;
}

void CMediaEventQueue::Restart(std::vector<LONG_PTR> renderers) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_events, [](const MediaEvent& event) { return event.code == EC_COMPLETE; });
    m_pending = renderers;
    m_renderers = std::move(renderers);
}
