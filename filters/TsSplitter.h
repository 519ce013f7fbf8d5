// The splitter: takes a transport stream that is pushed into its input pin apart.
#pragma once

#include "core/TsFilterBase.h"
#include "filters/TableEventThread.h"
#include "filters/TsInputPin.h"
#include "filters/WallClock.h"
#include "filters/threads/FilterWorker.h"
#include "platform/com/PropertyPages.h"

namespace tessel {

// One class, three filters, which differ in their mode.
inline constexpr CLSID CLSID_TsSplitter = MakeGuid("{05A20097-501E-4CE4-965A-C1F2F1BEEC42}");
inline constexpr CLSID CLSID_TsSplitterAsync = MakeGuid("{EF437ED2-736C-4777-ACE1-1D18C7887970}");
inline constexpr CLSID CLSID_TsSplitterRec = MakeGuid("{0A354CEF-937C-4748-AF03-70100D2F5B55}");

// Receive copies into the input buffer; a worker thread parses what is there; every output pin delivers from a
// thread of its own; clients are told by the event thread.
class CTsSplitter final : public CTsFilterBase,
                          public ISpecifyPropertyPages,
                          public IDvbPidMapper,
                          public IRALThreadExecutor {
public:
    explicit CTsSplitter(IUnknown* outer = nullptr);
    ~CTsSplitter() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Once, right after construction: the mode and the first pins. E_FAIL.
    HRESULT Init(StreamingMode mode, int32_t parameter);

    HRESULT GetClassID(CLSID* out) override;
    HRESULT Stop() override;
    HRESULT Pause() override;
    HRESULT SetSyncSource(IReferenceClock* clock) override;
    // The input pin, then the output pins.
    int GetPinCount() override;
    std::shared_ptr<CBasePin> GetPin(int index) override;

    HRESULT GetPages(CAUUID* pages) override;

    // IDvbPidMapper
    HRESULT Advise(IUnknown* sink, uint32_t* cookie) override { return m_pidSinks.Advise(sink, cookie); }
    HRESULT Unadvise(uint32_t cookie) override { return m_pidSinks.Unadvise(cookie); }

    // IDvbServiceInformationEx
    HRESULT Reset() override;
    HRESULT AdviseEvents(IUnknown* sink, uint32_t* cookie) override { return m_events.Sinks().Advise(sink, cookie); }
    HRESULT UnadviseEvents(uint32_t cookie) override { return m_events.Sinks().Unadvise(cookie); }

    // IRALThreadExecutor: the worker
    HRESULT OnThreadStart() override { return NameThread("ts-parser"), S_OK; }
    HRESULT OnThreadEnd() override { return S_OK; }
    uint32_t DoOneThreadTask() override;

    // From the input pin. S_FALSE while nothing is taken. Waits for room in the input buffer.
    HRESULT Receive(IMediaSample* sample);
    void EndOfStream();
    HRESULT BeginFlush();
    HRESULT EndFlush();

    HRESULT StartStreaming() override;
    HRESULT StopStreaming() override;
    void InternalReset() override;

private:
    void NewTSID(uint32_t transportStreamId) override;
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override;
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override;
    void TellPidSinks(std::span<const PidNotice> notices) override;
    HRESULT EnsureFreePin(CTsOutputPin& connected) override;
    void EndThreads() override;

    // Starts the threads, or rests them, as streaming has begun or ended: whichever came last, when both come at once.
    HRESULT SettleThreads();
    // Memory is out: the stream ends where it is, and the application is told why.
    void Abort();
    HRESULT Take(IMediaSample* sample);
    // Parses what there is, however little came since the last break in the stream.
    void ParseRest();
    HRESULT TakeDiscontinuity();
    // Parses on the caller's thread what needs no copy for it; true when no packet is left to parse.
    bool ParseWhereTheyLie(const uint8_t** data, int32_t* length);
    HRESULT AddBytes(const uint8_t* data, int32_t length);

    HRESULT m_clockResult = S_OK;
    CWallClock m_wallClock;
    std::shared_ptr<CTsInputPin> m_input;
    CSinkList m_pidSinks;
    CTableEventThread m_events;
    CCritSec m_threadsLock{"splitter's threads", kRankThreads};

    // The packet size is to be found out before the next packet. Written with the streaming lock held.
    std::atomic<bool> m_resyncPending{true};

    const std::shared_ptr<CEvent> m_dataEvent;
    CEvent m_roomEvent{EventReset::kAuto};
    CFilterWorker m_worker;
};

// A splitter with its pins "Input", "PSIOut" (the sections of all tables) and "Output1". mode: live, stream or
// recording. E_OUTOFMEMORY, E_FAIL.
HRESULT CreateTsSplitter(StreamingMode mode, IBaseFilter** out, const ReadingRules& rules = {});

}  // namespace tessel
