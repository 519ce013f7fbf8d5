#include "platform/media/BaseFilter.h"

#include <new>

#include "platform/media/BasePin.h"
#include "platform/media/Enumerators.h"
#include "platform/media/MediaResult.h"

HRESULT CBaseFilter::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == IBaseFilter::kIid)
        return GetInterface<IBaseFilter>(this, out);
    if (iid == IMediaFilter::kIid)
        return GetInterface<IMediaFilter>(this, out);
    if (iid == IPersist::kIid)
        return GetInterface<IPersist>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CBaseFilter::GetClassID(CLSID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_classId;
    return S_OK;
}

HRESULT CBaseFilter::Stop() {
    const CAutoLock lock(m_lock);
    if (IsStopped())
        return S_OK;
    HRESULT result = S_OK;
    for (int i = 0; i < GetPinCount(); ++i) {
        const auto pin = GetPin(i);
        if (pin == nullptr || !pin->IsConnected())
            continue;
        const HRESULT stopped = pin->Inactive();
        if (FAILED(stopped) && SUCCEEDED(result))
            result = stopped;
    }
    m_state = State_Stopped;
    return result;
}

HRESULT CBaseFilter::Pause() {
    const CAutoLock lock(m_lock);
    if (IsStopped()) {
        for (int i = 0; i < GetPinCount(); ++i) {
            const auto pin = GetPin(i);
            if (pin == nullptr || !pin->IsConnected())
                continue;
            const HRESULT result = pin->Active();
            if (SUCCEEDED(result))
                continue;
            while (i-- > 0) {
                const auto activated = GetPin(i);
                if (activated != nullptr && activated->IsConnected())
                    activated->Inactive();
            }
            return result;
        }
    }
    m_state = State_Paused;
    return S_OK;
}

HRESULT CBaseFilter::Run(REFERENCE_TIME start) {
    const CAutoLock lock(m_lock);
    m_start = start;
    if (IsStopped()) {
        const HRESULT result = Pause();
        if (FAILED(result))
            return result;
    }
    if (m_state == State_Running)
        return S_OK;
    for (int i = 0; i < GetPinCount(); ++i) {
        const auto pin = GetPin(i);
        if (pin == nullptr || !pin->IsConnected())
            continue;
        const HRESULT result = pin->Run(start);
        if (FAILED(result))
            return result;
    }
    m_state = State_Running;
    return S_OK;
}

HRESULT CBaseFilter::GetState(DWORD, FILTER_STATE* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_state;
    return S_OK;
}

HRESULT CBaseFilter::SetSyncSource(IReferenceClock* clock) {
    ComPtr<IReferenceClock> other(clock);
    const CAutoLock lock(&m_leaf);
    std::swap(m_clock, other);  // the old one goes after the lock: it may be this filter's last reference
    return S_OK;
}

HRESULT CBaseFilter::GetSyncSource(IReferenceClock** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = Clock().Detach();
    return S_OK;
}

ComPtr<IReferenceClock> CBaseFilter::Clock() const {
    const CAutoLock lock(&m_leaf);
    return m_clock;
}

HRESULT CBaseFilter::StreamTime(REFERENCE_TIME& out) {
    const ComPtr<IReferenceClock> clock = Clock();
    if (!clock)
        return VFW_E_NO_CLOCK;
    REFERENCE_TIME now = 0;
    const HRESULT result = clock->GetTime(&now);
    if (FAILED(result))
        return result;
    return __builtin_sub_overflow(now, m_start.load(), &out) ? E_FAIL : S_OK;
}

HRESULT CBaseFilter::EnumPins(IEnumPins** out) {
    if (out == nullptr)
        return E_POINTER;
    const ComPtr<IBaseFilter> self(this);
    return CEnumPins::Create({.version = [this, self] { return GetPinVersion(); },
                              .list =
                                  [this] {
                                      std::vector<ComPtr<IPin>> pins;
                                      for (int i = 0; i < GetPinCount(); ++i) {
                                          if (const auto pin = GetPin(i))
                                              pins.emplace_back(pin.get());
                                      }
                                      return pins;
                                  }},
                             out);
}

HRESULT CBaseFilter::FindPin(const OLECHAR* id, IPin** out) {
    if (id == nullptr || out == nullptr)
        return E_POINTER;
    *out = nullptr;
    for (int i = 0; i < GetPinCount(); ++i) {
        const auto pin = GetPin(i);
        if (pin == nullptr || pin->Name() != id)
            continue;
        *out = ComPtr<IPin>(pin.get()).Detach();
        return S_OK;
    }
    return VFW_E_NOT_FOUND;
}

HRESULT CBaseFilter::QueryFilterInfo(FILTER_INFO* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = FILTER_INFO{};
    const CAutoLock lock(&m_leaf);
    m_name.copy(out->achName, MAX_FILTER_NAME - 1);
    out->pGraph = m_graph;
    if (m_graph != nullptr)
        m_graph->AddRef();
    return S_OK;
}

HRESULT CBaseFilter::JoinFilterGraph(IFilterGraph* graph, const OLECHAR* name) {
    std::u16string text;
    try {
        text = name != nullptr ? name : u"";
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    // Held, unlike the graph: the graph's sink is an object of its own.
    ComPtr<IMediaEventSink> sink;
    if (graph != nullptr)
        graph->QueryInterface(IMediaEventSink::kIid, reinterpret_cast<void**>(sink.Put()));
    const CAutoLock lock(&m_leaf);
    m_graph = graph;
    std::swap(m_sink, sink);
    std::swap(m_name, text);
    return S_OK;
}

HRESULT CBaseFilter::NotifyEvent(LONG code, LONG_PTR param1, LONG_PTR param2) {
    ComPtr<IMediaEventSink> sink;
    {
        const CAutoLock lock(&m_leaf);
        sink = m_sink;
    }
    if (!sink)
        return E_NOTIMPL;
    if (code == EC_COMPLETE)
        param2 = reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(this));
    return sink->Notify(code, param1, param2);
}
