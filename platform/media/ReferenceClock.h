// The clock that a graph runs by, and its base class with the advise machinery.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "platform/com/Unknown.h"
#include "platform/media/ReferenceTime.h"
#include "platform/os/AutoLock.h"
#include "platform/os/CritSec.h"
#include "platform/os/Event.h"
#include "platform/os/Semaphore.h"
#include "platform/os/Thread.h"

using DWORD_PTR = uintptr_t;
// What an advise signals. It belongs to the caller and must live until Unadvise has returned or, for
// AdviseTime, the event was set.
using HEVENT = CEvent*;
using HSEMAPHORE = CSemaphore*;

class IReferenceClock : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A86897-0AD4-11CE-B03A-0020AF0BA770}");

    // Never runs backwards; S_FALSE when it is the same as at the call before.
    virtual HRESULT GetTime(REFERENCE_TIME* out) = 0;
    // Sets event once, when the time is baseTime + streamTime or later. The sum must lie above 0 and
    // below MAX_TIME: E_INVALIDARG.
    virtual HRESULT AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HEVENT event, DWORD_PTR* cookie) = 0;
    // Releases one from semaphore at startTime and after every periodTime; a clock that jumps makes up
    // for the periods it passed over.
    virtual HRESULT AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime, HSEMAPHORE semaphore,
                                   DWORD_PTR* cookie) = 0;
    // S_FALSE when there is no such advise (any more). After it returned, nothing is signalled.
    virtual HRESULT Unadvise(DWORD_PTR cookie) = 0;
};

// A derived class brings the time; this one keeps it from running backwards and serves the advises
// from a thread of its own, which the first advise starts.
class CBaseReferenceClock : public CUnknown, public IReferenceClock {
public:
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT GetTime(REFERENCE_TIME* out) override;
    HRESULT AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HEVENT event, DWORD_PTR* cookie) override;
    HRESULT AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime, HSEMAPHORE semaphore,
                           DWORD_PTR* cookie) override;
    HRESULT Unadvise(DWORD_PTR cookie) override;

    // The time as it stands, backward steps included. Called on any thread, under the lock too.
    virtual REFERENCE_TIME GetPrivateTime() = 0;

    // Makes the advise thread look at the time again: after each step of the private time.
    void TriggerThread();

protected:
    CBaseReferenceClock(const char* name, IUnknown* outer, int lockRank)
        : CUnknown(name, outer), m_lock("reference clock", lockRank) {}
    ~CBaseReferenceClock() override;

    // Ends the advise thread. The destructor of the class that brings GetPrivateTime begins with it.
    void StopAdvising();

    CCritSec m_lock;
    REFERENCE_TIME m_privateTime OS_GUARDED_BY(m_lock) = 0;
    // The milliseconds up to which the private time has been brought.
    int64_t m_lastSystemTime OS_GUARDED_BY(m_lock) = 0;

private:
    struct Advise {
        DWORD_PTR cookie;
        HEVENT event;          // of a single advise
        HSEMAPHORE semaphore;  // of a periodic one
        REFERENCE_TIME period;
    };

    REFERENCE_TIME Now() OS_REQUIRES(m_lock);
    HRESULT AddAdvise(REFERENCE_TIME time, Advise advise, DWORD_PTR* cookie);
    uint32_t AdviseThread();
    // Signals what is due; the milliseconds until the next.
    uint32_t SignalDue();

    REFERENCE_TIME m_lastGotTime OS_GUARDED_BY(m_lock) = INT64_MIN;
    std::multimap<REFERENCE_TIME, Advise> m_advises OS_GUARDED_BY(m_lock);
    DWORD_PTR m_lastCookie OS_GUARDED_BY(m_lock) = 0;

    CEvent m_trigger{EventReset::kAuto};
    std::atomic<bool> m_stopAdvising{false};
    std::shared_ptr<CThread> m_adviseThread OS_GUARDED_BY(m_lock);
};
