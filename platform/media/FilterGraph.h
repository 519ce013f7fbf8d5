// A graph of filters: who is in it, how they are connected, and their state.
#pragma once

#include <string>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/media/EventQueue.h"
#include "platform/media/SourceInterfaces.h"

// Called by the application's threads, one call at a time. A filter's thread posts events and calls
// nothing else here: a state change waits for it.
class CFilterGraph final : public CUnknown, public IFilterGraph, public IMediaFilter {
public:
    static constexpr CLSID kClassId = MakeGuid("{E436EBB3-524F-11CE-9F53-0020AF0BA770}");

    CFilterGraph();
    // Stops the filters, disconnects them and lets them go.
    ~CFilterGraph() override;

    DECLARE_IUNKNOWN
    // IMediaEventSink is answered with the event queue.
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // A null name is allowed. VFW_E_DUPLICATE_NAME; E_INVALIDARG for a filter that is in already.
    HRESULT AddFilter(IBaseFilter* filter, const OLECHAR* name) override;
    // While stopped. Disconnects it; a clock that it gave goes with it.
    HRESULT RemoveFilter(IBaseFilter* filter) override;
    HRESULT EnumFilters(IEnumFilters** out) override;
    HRESULT FindFilterByName(const OLECHAR* name, IBaseFilter** out) override;
    // Both filters must be in the graph and stopped. For the type see IPin::Connect.
    HRESULT ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) override;
    // Breaks a connection and makes it again, with a type that both then accept.
    HRESULT Reconnect(IPin* pin) override;
    // Both sides.
    HRESULT Disconnect(IPin* pin) override;
    // The clock of the first filter that has one, else the system's.
    HRESULT SetDefaultSyncSource() override;

    HRESULT GetClassID(CLSID* out) override;
    // Changes go upstream, from those that receive to those that send. When a filter fails to pause or to
    // run, all are stopped and its result is returned.
    HRESULT Stop() override;
    HRESULT Pause() override;
    // start 0: so that stream time goes on from where it was paused, shortly after now.
    HRESULT Run(REFERENCE_TIME start) override;
    // VFW_S_CANT_CUE when a filter says so.
    HRESULT GetState(DWORD milliseconds, FILTER_STATE* out) override;
    // While stopped; null is no clock.
    HRESULT SetSyncSource(IReferenceClock* clock) override;
    HRESULT GetSyncSource(IReferenceClock** out) override;

    // See CMediaEventQueue::GetEvent. Takes no lock of the graph.
    HRESULT GetEvent(MediaEvent* out, DWORD milliseconds) { return m_events->GetEvent(out, milliseconds); }

private:
    struct Entry {
        ComPtr<IBaseFilter> filter;
        std::u16string name;
    };
    using Filters = std::vector<ComPtr<IBaseFilter>>;

    bool Holds(IBaseFilter* filter) const OS_REQUIRES(m_lock);
    bool Holds(IPin* pin) const OS_REQUIRES(m_lock);
    // Receivers before senders.
    HRESULT UpstreamOrder(Filters& out) const OS_REQUIRES(m_lock);
    void Visit(IBaseFilter& filter, Filters& visited, Filters& out) const OS_REQUIRES(m_lock);
    HRESULT RestartEvents() OS_REQUIRES(m_lock);
    HRESULT StopAll() OS_REQUIRES(m_lock);
    HRESULT PauseAll() OS_REQUIRES(m_lock);
    HRESULT RunAll(REFERENCE_TIME start) OS_REQUIRES(m_lock);
    HRESULT SetClock(IReferenceClock* clock) OS_REQUIRES(m_lock);
    // 0 without a clock.
    REFERENCE_TIME Now() const OS_REQUIRES(m_lock);

    CCritSec m_lock{"filter graph", kMediaGraphRank};
    const ComPtr<CMediaEventQueue> m_events;
    std::vector<Entry> m_filters OS_GUARDED_BY(m_lock);
    // In the order of the last start, for the stop, which must not need memory.
    Filters m_started OS_GUARDED_BY(m_lock);
    ComPtr<IReferenceClock> m_clock OS_GUARDED_BY(m_lock);
    FILTER_STATE m_state OS_GUARDED_BY(m_lock) = State_Stopped;
    REFERENCE_TIME m_start OS_GUARDED_BY(m_lock) = 0;
    // Where stream time was when the graph was paused.
    REFERENCE_TIME m_streamTime OS_GUARDED_BY(m_lock) = 0;
    std::atomic<LONG> m_version{0};
};
