#include "platform/media/FilterGraph.h"

#include <algorithm>
#include <new>

#include "platform/media/Enumerators.h"
#include "platform/media/MediaResult.h"
#include "platform/media/SystemClock.h"

namespace {

// Time for the start to reach every filter.
constexpr REFERENCE_TIME kStartLead = 10 * kUnitsPerMillisecond;

// The pins as they are now; may throw std::bad_alloc.
std::vector<ComPtr<IPin>> PinsOf(IBaseFilter& filter) {
    std::vector<ComPtr<IPin>> pins;
    ComPtr<IEnumPins> list;
    if (FAILED(filter.EnumPins(list.Put())))
        return pins;
    while (true) {
        ComPtr<IPin> pin;
        const HRESULT result = list->Next(1, pin.Put(), nullptr);
        if (result == VFW_E_ENUM_OUT_OF_SYNC) {
            pins.clear();
            list->Reset();
        } else if (result == S_OK) {
            pins.push_back(std::move(pin));
        } else {
            return pins;
        }
    }
}

ComPtr<IPin> PeerOf(IPin& pin) {
    ComPtr<IPin> peer;
    pin.ConnectedTo(peer.Put());
    return peer;
}

ComPtr<IBaseFilter> FilterOf(IPin& pin) {
    PIN_INFO info;
    ComPtr<IBaseFilter> filter;
    if (SUCCEEDED(pin.QueryPinInfo(&info)))
        *filter.Put() = info.pFilter;
    return filter;
}

bool IsOutput(IPin& pin) {
    PIN_DIRECTION direction = PINDIR_INPUT;
    return SUCCEEDED(pin.QueryDirection(&direction)) && direction == PINDIR_OUTPUT;
}

HRESULT DisconnectBoth(IPin& pin) {
    const ComPtr<IPin> peer = PeerOf(pin);
    const HRESULT result = pin.Disconnect();
    if (FAILED(result) || !peer)
        return result;
    const HRESULT other = peer->Disconnect();
    return FAILED(other) ? other : result;
}

// A filter at the end of a stream: something comes in, and nothing could go out.
bool IsRenderer(IBaseFilter& filter) {
    bool receives = false;
    for (const auto& pin : PinsOf(filter)) {
        if (IsOutput(*pin))
            return false;
        receives = receives || PeerOf(*pin);
    }
    return receives;
}

bool SameObject(IUnknown* a, IUnknown* b) {
    return a != nullptr && b != nullptr && ComPtr(a).As<IUnknown>().Get() == ComPtr(b).As<IUnknown>().Get();
}

}  // namespace

CFilterGraph::CFilterGraph() : CUnknown("CFilterGraph", nullptr), m_events(new CMediaEventQueue()) {}

CFilterGraph::~CFilterGraph() {
    const CAutoLock lock(&m_lock);
    StopAll();
    while (!m_filters.empty()) {
        const ComPtr<IBaseFilter> filter = m_filters.back().filter;
        if (SUCCEEDED(RemoveFilter(filter.Get())))
            continue;
        filter->SetSyncSource(nullptr);
        filter->JoinFilterGraph(nullptr, nullptr);
        m_filters.pop_back();
    }
}

HRESULT CFilterGraph::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == IFilterGraph::kIid)
        return GetInterface<IFilterGraph>(this, out);
    if (iid == IMediaFilter::kIid)
        return GetInterface<IMediaFilter>(this, out);
    if (iid == IMediaEventSink::kIid)
        return GetInterface<IMediaEventSink>(m_events.Get(), out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CFilterGraph::GetClassID(CLSID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = kClassId;
    return S_OK;
}

bool CFilterGraph::Holds(IBaseFilter* filter) const {
    return std::any_of(m_filters.begin(), m_filters.end(),
                       [filter](const Entry& entry) { return entry.filter.Get() == filter; });
}

bool CFilterGraph::Holds(IPin* pin) const {
    return Holds(FilterOf(*pin).Get());
}

HRESULT CFilterGraph::AddFilter(IBaseFilter* filter, const OLECHAR* name) {
    if (filter == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    if (Holds(filter))
        return E_INVALIDARG;
    try {
        Entry entry{.filter = ComPtr<IBaseFilter>(filter), .name = name != nullptr ? name : u""};
        for (const Entry& other : m_filters) {
            if (!entry.name.empty() && other.name == entry.name)
                return VFW_E_DUPLICATE_NAME;
        }
        m_filters.push_back(std::move(entry));
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    ++m_version;
    HRESULT result = filter->JoinFilterGraph(this, name);
    if (SUCCEEDED(result) && m_clock)
        result = filter->SetSyncSource(m_clock.Get());
    if (SUCCEEDED(result))
        return S_OK;
    filter->JoinFilterGraph(nullptr, nullptr);
    m_filters.pop_back();
    ++m_version;
    return result;
}

HRESULT CFilterGraph::RemoveFilter(IBaseFilter* filter) {
    if (filter == nullptr)
        return E_POINTER;
    const ComPtr<IBaseFilter> last(filter);
    const CAutoLock lock(&m_lock);
    if (!Holds(filter))
        return VFW_E_NOT_IN_GRAPH;
    if (m_state != State_Stopped)
        return VFW_E_NOT_STOPPED;
    try {
        for (const auto& pin : PinsOf(*filter)) {
            const HRESULT result = DisconnectBoth(*pin);
            if (FAILED(result))
                return result;
        }
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    if (SameObject(m_clock.Get(), filter))
        SetClock(nullptr);
    // A filter that runs by its own clock would hold itself.
    filter->SetSyncSource(nullptr);
    filter->JoinFilterGraph(nullptr, nullptr);
    std::erase_if(m_filters, [filter](const Entry& entry) { return entry.filter.Get() == filter; });
    ++m_version;
    return S_OK;
}

HRESULT CFilterGraph::EnumFilters(IEnumFilters** out) {
    if (out == nullptr)
        return E_POINTER;
    const ComPtr<IFilterGraph> self(this);
    return CEnumFilters::Create({.version = [this, self]() -> LONG { return m_version; },
                                 .list =
                                     [this] {
                                         Filters filters;
                                         const CAutoLock lock(&m_lock);
                                         for (const Entry& entry : m_filters)
                                             filters.push_back(entry.filter);
                                         return filters;
                                     }},
                                out);
}

HRESULT CFilterGraph::FindFilterByName(const OLECHAR* name, IBaseFilter** out) {
    if (name == nullptr || out == nullptr)
        return E_POINTER;
    *out = nullptr;
    const CAutoLock lock(&m_lock);
    for (const Entry& entry : m_filters) {
        if (entry.name == name) {
            *out = ComPtr(entry.filter).Detach();
            return S_OK;
        }
    }
    return VFW_E_NOT_FOUND;
}

HRESULT CFilterGraph::ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) {
    if (output == nullptr || input == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    if (!Holds(output) || !Holds(input))
        return VFW_E_NOT_IN_GRAPH;
    if (!IsOutput(*output))
        return VFW_E_INVALID_DIRECTION;
    return output->Connect(input, type);
}

HRESULT CFilterGraph::Reconnect(IPin* pin) {
    if (pin == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    const ComPtr<IPin> peer = PeerOf(*pin);
    if (!peer)
        return VFW_E_NOT_CONNECTED;
    const HRESULT result = DisconnectBoth(*pin);
    if (FAILED(result))
        return result;
    return IsOutput(*pin) ? pin->Connect(peer.Get(), nullptr) : peer->Connect(pin, nullptr);
}

HRESULT CFilterGraph::Disconnect(IPin* pin) {
    if (pin == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    return DisconnectBoth(*pin);
}

HRESULT CFilterGraph::SetDefaultSyncSource() {
    const CAutoLock lock(&m_lock);
    for (const Entry& entry : m_filters) {
        if (const auto clock = entry.filter.As<IReferenceClock>())
            return SetSyncSource(clock.Get());
    }
    const ComPtr<CSystemClock> clock(new (std::nothrow) CSystemClock());
    return clock ? SetSyncSource(clock.Get()) : E_OUTOFMEMORY;
}

HRESULT CFilterGraph::SetSyncSource(IReferenceClock* clock) {
    const CAutoLock lock(&m_lock);
    return m_state == State_Stopped ? SetClock(clock) : VFW_E_NOT_STOPPED;
}

HRESULT CFilterGraph::SetClock(IReferenceClock* clock) {
    m_clock = ComPtr<IReferenceClock>(clock);
    HRESULT result = S_OK;
    for (const Entry& entry : m_filters) {
        const HRESULT set = entry.filter->SetSyncSource(clock);
        if (FAILED(set) && SUCCEEDED(result))
            result = set;
    }
    return result;
}

HRESULT CFilterGraph::GetSyncSource(IReferenceClock** out) {
    if (out == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    *out = ComPtr(m_clock).Detach();
    return S_OK;
}

void CFilterGraph::Visit(IBaseFilter& filter, Filters& visited, Filters& out) const {
    const auto same = [&filter](const ComPtr<IBaseFilter>& other) { return other.Get() == &filter; };
    if (!Holds(&filter) || std::any_of(visited.begin(), visited.end(), same))
        return;
    visited.emplace_back(&filter);
    for (const auto& pin : PinsOf(filter)) {
        const ComPtr<IPin> peer = PeerOf(*pin);
        if (!peer || !IsOutput(*pin))
            continue;
        if (const auto receiver = FilterOf(*peer))
            Visit(*receiver, visited, out);
    }
    out.emplace_back(&filter);
}

HRESULT CFilterGraph::UpstreamOrder(Filters& out) const {
    try {
        Filters visited;
        for (const Entry& entry : m_filters)
            Visit(*entry.filter, visited, out);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CFilterGraph::RestartEvents() {
    try {
        std::vector<LONG_PTR> renderers;
        for (const Entry& entry : m_filters) {
            if (IsRenderer(*entry.filter))
                renderers.push_back(reinterpret_cast<LONG_PTR>(entry.filter.Get()));
        }
        m_events->Restart(std::move(renderers));
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CFilterGraph::Stop() {
    const CAutoLock lock(&m_lock);
    return StopAll();
}

HRESULT CFilterGraph::StopAll() {
    HRESULT result = S_OK;
    const auto stop = [&result](IBaseFilter& filter) {
        const HRESULT stopped = filter.Stop();
        if (FAILED(stopped) && SUCCEEDED(result))
            result = stopped;
    };
    for (const auto& filter : m_started)
        stop(*filter);
    for (const Entry& entry : m_filters)  // one that came, or was started by itself, since
        stop(*entry.filter);
    m_started.clear();
    m_state = State_Stopped;
    m_streamTime = 0;
    return result;
}

HRESULT CFilterGraph::Pause() {
    const CAutoLock lock(&m_lock);
    return PauseAll();
}

HRESULT CFilterGraph::PauseAll() {
    if (m_state == State_Paused)
        return S_OK;
    m_started.clear();
    HRESULT result = UpstreamOrder(m_started);
    if (SUCCEEDED(result) && m_state == State_Stopped)
        result = RestartEvents();
    if (m_state == State_Running && m_clock)
        m_streamTime = Now() - m_start;
    for (const auto& filter : m_started) {
        if (SUCCEEDED(result))
            result = filter->Pause();
    }
    if (FAILED(result)) {
        StopAll();
        return result;
    }
    m_state = State_Paused;
    return S_OK;
}

HRESULT CFilterGraph::Run(REFERENCE_TIME start) {
    const CAutoLock lock(&m_lock);
    return RunAll(start);
}

HRESULT CFilterGraph::RunAll(REFERENCE_TIME start) {
    if (m_state == State_Running)
        return S_OK;
    HRESULT result = PauseAll();
    if (FAILED(result))
        return result;
    m_start = start == 0 && m_clock ? Now() + kStartLead - m_streamTime : start;
    Filters filters;
    result = UpstreamOrder(filters);
    for (const auto& filter : filters) {
        if (SUCCEEDED(result))
            result = filter->Run(m_start);
    }
    if (FAILED(result)) {
        StopAll();
        return result;
    }
    m_state = State_Running;
    return S_OK;
}

REFERENCE_TIME CFilterGraph::Now() const {
    REFERENCE_TIME now = 0;
    if (m_clock)
        m_clock->GetTime(&now);
    return now;
}

HRESULT CFilterGraph::GetState(DWORD milliseconds, FILTER_STATE* out) {
    if (out == nullptr)
        return E_POINTER;
    const CAutoLock lock(&m_lock);
    *out = m_state;
    HRESULT result = S_OK;
    for (const Entry& entry : m_filters) {
        FILTER_STATE state = State_Stopped;
        const HRESULT answer = entry.filter->GetState(milliseconds, &state);
        if (FAILED(answer))
            return answer;
        if (answer == VFW_S_CANT_CUE)
            result = answer;
    }
    return result;
}
