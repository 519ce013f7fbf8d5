// The base class of filters.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "platform/com/ComPtr.h"
#include "platform/media/GraphInterfaces.h"

class CBasePin;

// State changes run under the filter's lock. State, start time and clock are read without it: a thread
// that delivers reads stream time while Stop, with the lock, waits for that thread.
class CBaseFilter : public CUnknown, public IBaseFilter {
public:
    // name: the class name. lock: the filter's, which outlives the object.
    CBaseFilter(const char* name, IUnknown* outer, CCritSec* lock, const CLSID& classId)
        : CUnknown(name, outer), m_lock(lock), m_classId(classId) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT GetClassID(CLSID* out) override;
    HRESULT Stop() override;
    HRESULT Pause() override;
    HRESULT Run(REFERENCE_TIME start) override;
    HRESULT GetState(DWORD milliseconds, FILTER_STATE* out) override;
    HRESULT SetSyncSource(IReferenceClock* clock) override;
    HRESULT GetSyncSource(IReferenceClock** out) override;

    HRESULT EnumPins(IEnumPins** out) override;
    HRESULT FindPin(const OLECHAR* id, IPin** out) override;
    HRESULT QueryFilterInfo(FILTER_INFO* out) override;
    HRESULT JoinFilterGraph(IFilterGraph* graph, const OLECHAR* name) override;
    HRESULT QueryVendorInfo(OLECHAR**) override { return E_NOTIMPL; }

    // Any thread may ask; the derived class guards its list. Null: no such pin.
    virtual int GetPinCount() = 0;
    virtual std::shared_ptr<CBasePin> GetPin(int index) = 0;
    // Moves when pins come or go; enumerators then ask to be reset.
    LONG GetPinVersion() const { return m_pinVersion; }
    void IncrementPinVersion() { ++m_pinVersion; }

    FILTER_STATE State() const { return m_state; }
    bool IsStopped() const { return m_state == State_Stopped; }
    bool IsActive() const { return !IsStopped(); }
    REFERENCE_TIME StartTime() const { return m_start; }
    // The clock's time since the start; VFW_E_NO_CLOCK without one.
    virtual HRESULT StreamTime(REFERENCE_TIME& out);
    ComPtr<IReferenceClock> Clock() const;

    // Posts to the graph; E_NOTIMPL outside of one. With EC_COMPLETE param2 becomes this filter.
    HRESULT NotifyEvent(LONG code, LONG_PTR param1, LONG_PTR param2);

protected:
    // Written under the lock; one value at a time, so that an atomic serves those who read without it.
    std::atomic<FILTER_STATE> m_state{State_Stopped};
    CCritSec* const m_lock;

private:
    const CLSID m_classId;
    std::atomic<REFERENCE_TIME> m_start{0};
    std::atomic<LONG> m_pinVersion{0};

    mutable CCritSec m_leaf{"filter's graph and clock", kMediaLeafRank};
    ComPtr<IReferenceClock> m_clock OS_GUARDED_BY(m_leaf);
    ComPtr<IMediaEventSink> m_sink OS_GUARDED_BY(m_leaf);
    IFilterGraph* m_graph OS_GUARDED_BY(m_leaf) = nullptr;
    std::u16string m_name OS_GUARDED_BY(m_leaf);
};
