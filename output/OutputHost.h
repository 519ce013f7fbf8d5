// What output pins and their contents need of the filter that they belong to.
#pragma once

#include <cstdint>
#include <memory>

#include "core/stream/ReadingRules.h"
#include "output/DeliveryLock.h"
#include "output/ProgramMapTables.h"
#include "platform/media/GraphInterfaces.h"
#include "platform/os/Event.h"

namespace tessel {

class CStreamExecutor;
class CTsOutputPin;

// Called on the parsing thread, the delivery threads and the control threads. Nothing here takes the table
// lock unless it says so.
class IOutputHost {
public:
    // The host lives as long as this: for the threads of its outputs. Null when memory is out.
    virtual std::shared_ptr<const void> Hold() = 0;
    // Stream time while running, else 0.
    virtual REFERENCE_TIME CurrentStreamTime() = 0;
    virtual bool IsHostStopped() const = 0;
    virtual bool IsHostRunning() const = 0;
    // Without a clock there is no stream time, and nothing to wait for.
    virtual bool HasClock() const = 0;
    // The host is about to stop: whoever waits for a receiver gives up.
    virtual bool IsEnding() const = 0;
    // It ends, or is about to start all outputs anew: the parsing thread waits for no receiver.
    virtual bool IsParserAwaited() const = 0;
    // Filter parameter 22.
    virtual int32_t WorkerPriority() const = 0;
    // Shared, so that a delivery that does not come back finds it when it does.
    virtual std::shared_ptr<CDeliveryLock> DeliveryLock() = 0;
    virtual std::shared_ptr<const ProgramMapTables> CurrentProgramMapTables() = 0;
    // The same from the first start on.
    virtual const ReadingRules& Rules() const = 0;

    // Around every change of what an output wants: see PcrClocks.
    virtual HRESULT BeginPcrUpdate() = 0;
    virtual HRESULT EndPcrUpdate() = 0;
    // Marks the clock of a PID; E_FAIL when there is none.
    virtual HRESULT SetPcrDiscont(int32_t pcrPid) = 0;
    // The common start of all contents on the PCR PID of the one that asks. A failure means not yet; at the end of the
    // input it means never, and S_FALSE that others have yet to come to where this one is. ptsOrigin in 90 kHz.
    virtual HRESULT StartSync(const CStreamExecutor& content, bool inputEnded, int64_t* ptsOrigin,
                              REFERENCE_TIME* timeOrigin) = 0;
    // Waits until stream time is at, event is set, or so many milliseconds have passed.
    virtual void WaitForStreamTime(REFERENCE_TIME at, const std::shared_ptr<CEvent>& event, uint32_t milliseconds) = 0;

    // Has the sections of pid assembled. Takes the table lock.
    virtual HRESULT WantSections(uint32_t pid) = 0;
    // Whether the pin wants the packets of pid (ALL_PIDS and ALL_TABLES included); or all that it wants.
    virtual void OnPinWants(CTsOutputPin& pin, ULONG pid, bool wanted) = 0;
    virtual void OnPinWantsChanged(CTsOutputPin& pin) = 0;
    virtual void OnPinDeliverableChanged(CTsOutputPin& pin, bool deliverable) = 0;
    // After a pin has made, or broken, its connection.
    virtual HRESULT OnPinConnected(CTsOutputPin& pin) = 0;
    virtual void OnPinDisconnected(CTsOutputPin& pin) = 0;
    virtual bool IsFirstPin(const CTsOutputPin& pin) = 0;
    // The filter's own interfaces.
    virtual HRESULT QueryHost(const IID& iid, void** out) = 0;

protected:
    ~IOutputHost() = default;
};

}  // namespace tessel
